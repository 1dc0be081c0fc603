// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the pointwise LASzip compressor (point formats 0 to 5): one chunk decoded item by item,
// point after point.
#pragma once

#include "io/laz/laz.hpp"

namespace Quorvel::Laz {

// Decodes count records from the chunk's bytes into out; returns the bytes left unread (at most
// one of the encoder's end when the chunk holds count points). Throws std::runtime_error naming
// the problem.
std::size_t decodePointwiseChunk(const std::uint8_t* data, std::size_t size,
                                 const std::vector<Item>& items, std::uint32_t count,
                                 std::size_t recordLength, std::uint8_t* out);

// Appends the chunk of count records (the first raw, then the coded rest) to out; throws
// std::runtime_error when the items do not fit the records.
void encodePointwiseChunk(const std::uint8_t* records, std::uint32_t count,
                          const std::vector<Item>& items, std::size_t recordLength,
                          std::vector<std::uint8_t>& out);

} // namespace Quorvel::Laz
