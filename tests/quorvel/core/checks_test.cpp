// SPDX-License-Identifier: BSD-3-Clause
// Tests of the table of parameter checks: each rule with accepted and refused values, as text and
// as numbers, with the exact words, and the table's fields against the boxes they belong to.
#include "quorvel/core/checks.hpp"

#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <limits>

namespace {

using namespace Quorvel::Checks;

std::string problemOf(const char* box, const char* field, std::string_view text) {
  const FieldCheck* check = checkOf(box, field);
  EXPECT_NE(check, nullptr) << box << "." << field;
  return check ? problem(*check, text).value_or("") : "no check";
}

std::string problemOf(const char* box, const char* field, double value) {
  const FieldCheck* check = checkOf(box, field);
  return check ? problem(*check, value).value_or("") : "no check";
}

TEST(Checks, NumbersAsTextAndAsValues) {
  const char* shape = "ShapeFactorComputationParameterBox";
  EXPECT_EQ(problemOf(shape, "step", "0.5"), "");
  EXPECT_EQ(problemOf(shape, "step", " -1"), "\" -1\" is not a positive finite number");
  EXPECT_EQ(problemOf(shape, "step", "inf"), "\"inf\" is not a positive finite number");
  EXPECT_EQ(problemOf(shape, "step", -1.0), "\"-1\" is not a positive finite number");
  EXPECT_EQ(problemOf(shape, "step", std::nan("")), "\"nan\" is not a positive finite number");
  EXPECT_EQ(problemOf(shape, "maxstep", "1000"), "");
  EXPECT_EQ(problemOf(shape, "maxstep", "1001"), "\"1001\" is not a whole number from 0 to 1000");
  EXPECT_EQ(problemOf(shape, "maxstep", 2.5), "\"2.5\" is not a whole number from 0 to 1000");
  EXPECT_EQ(problemOf(shape, "dimension", 2.0), "");
  EXPECT_EQ(problemOf(shape, "dimension", "4"), "\"4\" is not one of 2, 3");
  EXPECT_EQ(problemOf(shape, "intensity_threshold", 70000.0),
            "\"70000\" is not a number from 0 to 65535");
  EXPECT_EQ(problemOf("PlanarRegressionParameterBox", "quantile", "101"),
            "\"101\" is not a number from 0 to 100");
  EXPECT_EQ(problemOf("ExtrapolationParameterBox", "mode", "grow"),
            "\"grow\" is not one of planarregression, threshold, classification, constant");
  // NaN is the unset threshold of a thinning, infinity is not.
  const char* reduce = "PointCloudSizeReductionParameterBox";
  EXPECT_EQ(problemOf(reduce, "threshold", std::numeric_limits<double>::quiet_NaN()), "");
  EXPECT_NE(problemOf(reduce, "threshold", HUGE_VAL), "");
}

TEST(Checks, RangeAndBandTextsUnderAnyLocale) {
  const char* previous = std::setlocale(LC_NUMERIC, "de_DE.UTF-8");
  const char* regression = "PlanarRegressionParameterBox";
  EXPECT_EQ(problemOf(regression, "source", "2:5;9"), "");
  EXPECT_EQ(problemOf(regression, "source", ""), "");
  EXPECT_EQ(problemOf(regression, "source", "two"),
            "\"two\" is not a value or low:high of finite numbers");
  EXPECT_EQ(problemOf(regression, "source", "2,1:x"),
            "\"1:x\" in \"2,1:x\" is not a value or low:high of finite numbers");
  EXPECT_EQ(problemOf("classificationTransfer", "text", "0.5=2;1=3"), "");
  EXPECT_EQ(problemOf("classificationTransfer", "text", "0.5=two"),
            "\"0.5=two\" is not a distance or distance=class");
  EXPECT_EQ(problemOf("classificationTransfer", "text", "1;-1"),
            "\"-1\" in \"1;-1\" is not a distance or distance=class");
  // Ranges whose ends were swapped hold nothing; equal ends hold one value.
  EXPECT_EQ(problemOf(regression, "source", "5:5,7:8"), "");
  EXPECT_EQ(problemOf(regression, "source", "2,5:1"),
            "\"5:1\" in \"2,5:1\" is reversed: its low end is above its high end");
  // Classes are one byte: 999 would wrap to 231.
  EXPECT_EQ(problemOf("classificationTransfer", "text", "1=255"), "");
  EXPECT_EQ(problemOf("classificationTransfer", "text", "1=999"),
            "\"1=999\" gives a class outside 0 to 255");
  EXPECT_EQ(problemOf("classificationTransfer", "text", "0.5=-1;1"),
            "\"0.5=-1\" in \"0.5=-1;1\" gives a class outside 0 to 255");
  if (previous)
    std::setlocale(LC_NUMERIC, "C");
  EXPECT_EQ(named("step", "\"-1\" is not a positive finite number"),
            "\"step\": \"-1\" is not a positive finite number");
  EXPECT_EQ(checkOf("ShapeFactorComputationParameterBox", "nothing"), nullptr);
  EXPECT_EQ(checksOf("NoBox"), nullptr);
}

} // namespace
