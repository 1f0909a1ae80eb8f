// One-line checks of a failing call: its result (0 or a null pointer) says it failed and the calling thread's error
// chain has code `code` (-1: any) and a message holding `text` (Fails) or exactly `text` (FailsExactly).
#pragma once

#include "support/platform_support.h"

namespace qwtest {

template <typename T>
::testing::AssertionResult Fails(const T &result, int code, const std::string &text = "",
                                 Match match = Match::Contains) {
  if (result) return ::testing::AssertionFailure() << "the call succeeded";
  return HasError(code, text, match);
}
template <typename T>
::testing::AssertionResult FailsExactly(const T &result, int code, const std::string &text) {
  return Fails(result, code, text, Match::Exact);
}

}  // namespace qwtest
