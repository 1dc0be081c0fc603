// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: LAS and LAZ files written from batches of records, the header completed at the end.
#include "io/detail/las_output.hpp"
#include "io/files.hpp"
#include "io/laz/laz.hpp"
#include "io/stream.hpp"
#include "quorvel/core/parallel.hpp"

#include <algorithm>
#include <cstring>
#include <filesystem>

namespace Quorvel::Las {

namespace {

using namespace detail;

// Points per chunk of a LAZ file, as LASzip writes them.
constexpr std::uint32_t ChunkPoints = 50000;
// Bytes of LAS records gathered before they are written.
constexpr std::size_t WriteBytes = std::size_t(256) << 10;

void checkRecords(const Header& h, const std::vector<ExtraBytes>& extras) {
  if (h.pointFormat > 10)
    throw Problem("point format " + std::to_string(h.pointFormat) + " does not exist");
  std::size_t length = format(h.pointFormat).length;
  for (const ExtraBytes& e : extras)
    length += static_cast<std::size_t>(e.size);
  if (h.recordLength < length)
    throw Problem("records of " + std::to_string(h.recordLength) + " bytes cannot hold " +
                  "point format " + std::to_string(h.pointFormat) + " and its extra bytes (" +
                  std::to_string(length) + " bytes)");
}

// f(), where the LAZ coder's failures are problems of the file being written; errors that name
// their file already (the output's own) pass as they are.
template <class F>
void coding(F&& f) {
  try {
    f();
  } catch (const Error&) {
    throw;
  } catch (const std::runtime_error& e) {
    throw Problem(e.what());
  }
}

} // namespace

struct Writer::Impl {
  Impl(const std::string& p, const FileInfo& i);

  std::string path;
  Header header;
  std::vector<Vlr> vlrs, evlrs;
  bool laz;
  std::size_t length;
  Laz::Description compression;
  std::size_t laszipAt = 0; // where the "laszip encoded" record's data starts
  std::vector<std::uint8_t> head;
  TemporaryFile out;
  Tally tally;
  Bytes pending;
  std::vector<Laz::Chunk> chunks;
  std::uint64_t at = 0; // bytes written

  void compress(bool all);
  void writeLazTail();
};

Writer::Impl::Impl(const std::string& p, const FileInfo& i)
    : path(p), header(i.header), vlrs(i.vlrs), evlrs(i.evlrs), laz(Files::isLaz(p)),
      length(i.header.recordLength), out(p) {
  namingFile(path, [&] {
    checkRecords(header, i.extraBytes);
    if (laz)
      coding([&] {
        vlrs.push_back(Laz::laszipRecord(header.pointFormat,
                                         length - format(header.pointFormat).length, ChunkPoints,
                                         compression));
      });
  });
  head.assign(headerSizeFor(header.versionMinor), 0);
  for (std::size_t k = 0; k < vlrs.size() - (laz ? 1 : 0); ++k)
    encodeRecord(vlrs[k], false, head);
  if (laz) {
    laszipAt = head.size() + VlrHeaderSize;
    encodeRecord(vlrs.back(), false, head);
    head.resize(head.size() + 8); // the chunk table's offset, known at the end
  }
  out.write(head.data(), head.size());
  at = head.size();
}

// Compresses the whole chunks pending, and with all the rest too as a smaller chunk.
void Writer::Impl::compress(bool all) {
  const std::size_t points = pending.size() / length;
  const std::size_t whole = all ? points : points / ChunkPoints * ChunkPoints;
  if (whole == 0)
    return;
  std::vector<std::vector<std::uint8_t>> coded;
  namingFile(path, [&] {
    coding([&] {
      coded = Laz::encodeChunks(pending.data(), Laz::chunkSizes(whole, ChunkPoints), length,
                                compression);
    });
  });
  for (std::size_t k = 0; k < coded.size(); ++k) {
    const std::uint64_t n = std::min<std::uint64_t>(ChunkPoints, whole - k * ChunkPoints);
    chunks.push_back({0, n, at, coded[k].size()});
    out.write(coded[k].data(), coded[k].size());
    at += coded[k].size();
  }
  pending.erase(pending.begin(), pending.begin() + static_cast<std::ptrdiff_t>(whole * length));
}

// The chunk table after the chunks, its offset before them, and the chunk size the table
// needs: variable once a chunk was cut short before the last.
void Writer::Impl::writeLazTail() {
  compress(true);
  bool variable = false;
  for (std::size_t k = 0; k + 1 < chunks.size(); ++k)
    variable = variable || chunks[k].points != ChunkPoints;
  std::vector<std::uint8_t> table;
  Laz::appendChunkTable(table, chunks, variable);
  const std::uint64_t tableAt = at;
  out.write(table.data(), table.size());
  at += table.size();
  out.writeAt(head.size() - 8, reinterpret_cast<const std::uint8_t*>(&tableAt), 8);
  if (variable) {
    const Vlr record =
        Laz::laszipRecord(header.pointFormat, length - format(header.pointFormat).length,
                          Laz::Description::VariableChunks, compression);
    out.writeAt(laszipAt, record.data.data(), record.data.size());
  }
}

Writer::Writer(const std::string& path, const FileInfo& info)
    : impl_(std::make_unique<Impl>(path, info)) {}

Writer::~Writer() = default;

void Writer::append(const std::uint8_t* records, std::size_t count) {
  Impl& m = *impl_;
  if (!m.laz && m.pending.empty() && count * m.length >= WriteBytes) {
    m.tally.add(records, count, m.length, format(m.header.pointFormat).extended);
    m.out.write(records, count * m.length); // a large batch goes out as it is
    m.at += count * m.length;
    return;
  }
  append(count, [&](std::uint8_t* out) { std::memcpy(out, records, count * m.length); });
}

void Writer::append(std::size_t count, const std::function<void(std::uint8_t* out)>& fill) {
  Impl& m = *impl_;
  const std::size_t at = m.pending.size();
  m.pending.resize(at + count * m.length);
  fill(m.pending.data() + at);
  m.tally.add(m.pending.data() + at, count, m.length, format(m.header.pointFormat).extended);
  if (m.laz) {
    const auto ahead = static_cast<std::size_t>(allThreads());
    if (m.pending.size() >= ChunkPoints * ahead * m.length)
      m.compress(false);
  } else if (m.pending.size() >= WriteBytes)
    flush();
}

void Writer::flush() {
  Impl& m = *impl_;
  if (m.laz)
    return m.compress(true);
  m.out.write(m.pending.data(), m.pending.size());
  m.at += m.pending.size();
  m.pending.clear();
}

std::size_t Writer::pending() const {
  return impl_->pending.size() / impl_->length;
}

std::uint64_t Writer::pointCount() const {
  return impl_->tally.count;
}

void Writer::finish() {
  Impl& m = *impl_;
  if (m.laz)
    m.writeLazTail();
  else
    flush();
  std::vector<std::uint8_t> tail;
  for (const Vlr& v : m.evlrs)
    encodeRecord(v, true, tail);
  const std::uint64_t evlrOffset = m.evlrs.empty() ? 0 : m.at;
  m.out.write(tail.data(), tail.size());
  Header h = m.header;
  // Wave packets kept in the first EVLR stay found there; an outside start means nothing here.
  h.waveformStart = h.waveformStart != 0 && h.waveformStart == h.evlrOffset ? evlrOffset : 0;
  const std::size_t pointOffset = m.laz ? m.head.size() - 8 : m.head.size();
  const RawHeader raw =
      completed(h, {m.vlrs.size(), pointOffset, m.evlrs.size(), evlrOffset, m.laz}, m.tally);
  encodeHeader(raw, m.head.data());
  m.out.writeAt(0, m.head.data(), raw.header.headerSize);
  m.out.commit();
}

} // namespace Quorvel::Las
