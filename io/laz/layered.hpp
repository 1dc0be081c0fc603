// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the layered LASzip compressor (point formats 6 to 10): one chunk decoded layer by
// layer.
#pragma once

#include "io/laz/laz.hpp"

namespace Quorvel::Laz {

// Decodes count records from the chunk's bytes into out; throws std::runtime_error naming the
// problem.
void decodeLayeredChunk(const std::uint8_t* data, std::size_t size, const std::vector<Item>& items,
                        std::uint32_t count, std::size_t recordLength, std::uint8_t* out);

// Appends the chunk of count records to out: the first raw, the point count, the layers' sizes and
// the layers; throws std::runtime_error when the items do not fit the records.
void encodeLayeredChunk(const std::uint8_t* records, std::uint32_t count,
                        const std::vector<Item>& items, std::size_t recordLength,
                        std::vector<std::uint8_t>& out);

} // namespace Quorvel::Laz
