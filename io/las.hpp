// Quorvel: LAS files (versions 1.0 to 1.4, point formats 0 to 10) to point-cloud grids and back.
#pragma once

#include "tressel/Grid.hpp"

#include <array>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace Quorvel::Las {

// A file that cannot be read or written; the text names the file and the problem.
struct Error : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A variable-length record (or an extended one, after the points), kept as read.
struct Vlr {
  std::uint16_t reserved = 0;
  std::string userId; // 16 bytes, zero padded
  std::uint16_t recordId = 0;
  std::string description; // 32 bytes, zero padded
  std::vector<std::uint8_t> data;
};

// One extra-bytes dimension: its 192-byte descriptor and what the reader made of it.
struct ExtraBytes {
  std::array<std::uint8_t, 192> descriptor{};
  std::string name;
  int dataType =
      0; // 1 to 10: uchar, char, ushort, short, ulong, long, ulonglong, longlong, float, double
  int size = 0; // bytes per point
};

// The public header block, as plain values.
struct Header {
  std::uint16_t fileSourceId = 0;
  std::uint16_t globalEncoding = 0;
  std::array<std::uint8_t, 16> guid{};
  std::uint8_t versionMajor = 1, versionMinor = 4;
  std::string systemId = "Quorvel";
  std::string software = "Quorvel";
  std::uint16_t day = 0, year = 0;
  std::uint16_t headerSize = 375;
  std::uint32_t pointOffset = 375;
  std::uint32_t vlrCount = 0;
  std::uint8_t pointFormat = 6;
  std::uint16_t recordLength = 30;
  std::uint64_t pointCount = 0;
  std::array<double, 3> scale{0.001, 0.001, 0.001};
  std::array<double, 3> offset{0, 0, 0};
  std::array<double, 3> max{0, 0, 0}, min{0, 0, 0};
  std::uint64_t waveformStart = 0;
  std::uint64_t evlrOffset = 0;
  std::uint32_t evlrCount = 0;
};

// What a LAS file holds besides the points, kept for writing back.
struct FileInfo {
  Header header;
  std::vector<Vlr> vlrs;
  std::vector<Vlr> evlrs;
  std::vector<ExtraBytes> extraBytes;
};

struct ReadResult {
  FileInfo info;
  Basalt::StrongPtr<Tressel::Grid> grid;
};

// Reads a LAS file into a point-cloud grid: "Positions" (scale and offset applied),
// "Classification" (the whole byte for formats 6 to 10, five bits otherwise), "Intensity",
// "ReturnNumber", "NumberOfReturns", "LastReturn", "ScanDirectionFlag", "EdgeOfFlightLine",
// "Synthetic", "KeyPoint", "Withheld", "ScanAngle" (degrees), "UserData", "PointSourceId",
// "GpsTime", "Overlap", "ScannerChannel", "RGB", "NIR", the wave-packet values, every
// extra-bytes dimension under its own name and type, and "PointIndex" (the place of the point in
// the file). Points are split into x-y tiles of about fragmentPoints points each (one fragment
// when fragmentPoints is at or above the point count), keeping file order within a tile.
// Throws Error naming the file and every problem found.
ReadResult read(const std::string& path, std::size_t fragmentPoints = 250000);

// Writes a grid as LAS 1.4 in file order ("PointIndex" where present). With info, its scale,
// offset, point format, VLRs and EVLRs are kept; a class above 31 moves formats 0 to 5 to 6, 7,
// 9 or 10; per-point fields without a place in the format become extra-bytes dimensions.
// Coordinates that do not fit (NaN, out of range) are an error. The file appears only when
// completely written.
void write(const std::string& path, const Tressel::Grid& grid, const FileInfo* info = nullptr);

} // namespace Quorvel::Las
