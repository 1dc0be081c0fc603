// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the colours of pictures: the class palette, the value ramp, and the hillshade that
// darkens them.
#include "quorvel/core/core.hpp"
#include "quorvel/render/render.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numbers>

namespace Quorvel {

namespace Render {

namespace {

constexpr Rgba rgb(unsigned hex) {
  return {static_cast<std::uint8_t>(hex >> 16), static_cast<std::uint8_t>((hex >> 8) & 0xff),
          static_cast<std::uint8_t>(hex & 0xff), 255};
}

// The classes of the LAS 1.4 table (R15) with their usual colours: vegetation from light to dark
// green as it grows, structures warm, water blue, noise magenta.
struct Usual {
  int cls;
  unsigned colour;
  const char* name;
};
constexpr Usual UsualClasses[] = {
    {0, 0xa0a0a0, "never classified"},
    {1, 0xc8c8c8, "unclassified"},
    {2, 0xa0522d, "ground"},
    {3, 0xa8d84a, "low vegetation"},
    {4, 0x4caf3c, "medium vegetation"},
    {5, 0x1b6b24, "high vegetation"},
    {6, 0xe8461e, "building"},
    {7, 0xff00ff, "low point (noise)"},
    {8, 0xffd700, "model key-point"},
    {9, 0x1e64ff, "water"},
    {10, 0x8c6e00, "rail"},
    {11, 0x505050, "road surface"},
    {12, 0xb4b4ff, "overlap"},
    {13, 0xffff00, "wire - guard"},
    {14, 0xffc800, "wire - conductor"},
    {15, 0xff8c00, "transmission tower"},
    {16, 0xffa0a0, "wire connector"},
    {17, 0x8a2be2, "bridge deck"},
    {18, 0xc800c8, "high noise"},
    {19, 0xc86400, "overhead structure"},
    {20, 0xd2b48c, "ignored ground"},
    {21, 0xe6f0ff, "snow"},
    {22, 0x808000, "temporal exclusion"},
};
constexpr unsigned OtherClass = 0x969696;

// Viridis at t = 0, 1/8, ..., 1: its lightness grows steadily, and it stays readable to the
// colour blind.
constexpr unsigned Ramp[] = {0x440154, 0x472c7a, 0x3b518b, 0x2c718e, 0x21918c,
                             0x28ae80, 0x5ec962, 0xaddc30, 0xfde725};

std::uint8_t mix(std::uint8_t a, std::uint8_t b, double t) {
  return static_cast<std::uint8_t>(std::lround(a + (b - a) * t));
}

} // namespace

const std::array<ClassStyle, 256>& defaultPalette() {
  static const std::array<ClassStyle, 256> palette = [] {
    std::array<ClassStyle, 256> p;
    for (int c = 0; c < 256; ++c)
      p[c] = {rgb(OtherClass), "class " + std::to_string(c)};
    for (const Usual& u : UsualClasses)
      p[u.cls] = {rgb(u.colour), u.name};
    return p;
  }();
  return palette;
}

std::string paletteText() {
  std::string out;
  char line[96];
  for (const Usual& u : UsualClasses) {
    std::snprintf(line, sizeof line, "%d #%06x %s\n", u.cls, u.colour, u.name);
    out += line;
  }
  std::snprintf(line, sizeof line, "other #%06x class N\n", OtherClass);
  return out + line;
}

Rgba rampColour(double t) {
  constexpr int Steps = static_cast<int>(std::size(Ramp)) - 1;
  const double at = std::clamp(std::isnan(t) ? 0.0 : t, 0.0, 1.0) * Steps;
  const int k = std::min(static_cast<int>(at), Steps - 1);
  const Rgba a = rgb(Ramp[k]), b = rgb(Ramp[k + 1]);
  const double f = at - k;
  return {mix(a.r, b.r, f), mix(a.g, b.g, f), mix(a.b, b.b, f), 255};
}

bool parseColour(const std::string& text, Rgba& colour) {
  if ((text.size() != 7 && text.size() != 9) || text[0] != '#' ||
      text.find_first_not_of("0123456789abcdefABCDEF", 1) != std::string::npos)
    return false;
  const auto byte = [&](std::size_t at) {
    return static_cast<std::uint8_t>(std::stoul(text.substr(at, 2), nullptr, 16));
  };
  colour = {byte(1), byte(3), byte(5), text.size() == 9 ? byte(7) : std::uint8_t{255}};
  return true;
}

double hillshade(const std::array<double, 9>& w, double sizeX, double sizeY, double azimuth,
                 double altitude) {
  // Horn's weights: east minus west, north minus south.
  const double dzdx = ((w[2] + 2 * w[5] + w[8]) - (w[0] + 2 * w[3] + w[6])) / (8 * sizeX);
  const double dzdy = ((w[0] + 2 * w[1] + w[2]) - (w[6] + 2 * w[7] + w[8])) / (8 * sizeY);
  constexpr double Degree = std::numbers::pi / 180;
  const double az = azimuth * Degree, alt = altitude * Degree;
  // The light's direction (x east, y north, z up) against the surface's normal (-dzdx, -dzdy, 1).
  const double lit =
      -dzdx * std::sin(az) * std::cos(alt) - dzdy * std::cos(az) * std::cos(alt) + std::sin(alt);
  const double cosine = lit / std::sqrt(dzdx * dzdx + dzdy * dzdy + 1);
  return cosine <= 0 ? 1.0 : 1.0 + 254.0 * cosine;
}

} // namespace Render

void RenderParameterBox::print() const {
  printFields(*this);
}

} // namespace Quorvel
