// The receipt as a person reads it: a till receipt 42 columns wide. A pure
// function of the record; lines are joined by single line feeds, with none
// after the last.
#pragma once

#include <string>
#include <string_view>

#include "meter/receipt.h"

namespace ostler {

inline constexpr int kReceiptWidth = 42;

[[nodiscard]] std::string renderPlainTextReceipt(const Receipt& receipt);

// `text` centred in `width` characters; the odd space goes after it.
[[nodiscard]] std::string center(std::string_view text, int width);

// Label and value joined by a dot leader to `width` characters; the label is
// cut to make room, the value never.
[[nodiscard]] std::string row(std::string_view label, std::string_view value, int width);

// "$12.34".
[[nodiscard]] std::string dollars(double usd);

}  // namespace ostler
