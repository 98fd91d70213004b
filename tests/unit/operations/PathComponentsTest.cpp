#include <gtest/gtest.h>

#include "operations/PathComponents.h"

namespace kestrin::operations {
namespace {

using Parts = std::vector<std::string>;

TEST(StripComponents, RemovesNothingOneComponentEverywhereOrTheRunBetweenFirstAndLast) {
  Parts path{"/", "Library", "Plug-Ins", "FxPlug", "Acme", "Blur.fxplug"};
  EXPECT_EQ(stripComponents({}, path), path);
  EXPECT_EQ(stripComponents({"Acme"}, Parts{"Acme", "x", "Acme"}), Parts{"x"});
  EXPECT_EQ(stripComponents({"/", "Library", "Plug-Ins", "FxPlug"}, path),
            (Parts{"Acme", "Blur.fxplug"}));
  // Only the base's first and last components are looked for, at their first occurrences.
  EXPECT_EQ(stripComponents({"Library", "anything", "FxPlug"}, path),
            (Parts{"/", "Acme", "Blur.fxplug"}));
}

TEST(StripComponents, LeavesThePathAloneWhenTheBaseIsNotInIt) {
  Parts path{"/", "Users", "ed", "Library"};
  EXPECT_EQ(stripComponents({"Library", "Plug-Ins"}, path), path);
  EXPECT_EQ(stripComponents({"Nowhere"}, path), path);
  // Last before first: no run to remove.
  EXPECT_EQ(stripComponents({"Library", "Users"}, path), path);
}

} // namespace
} // namespace kestrin::operations
