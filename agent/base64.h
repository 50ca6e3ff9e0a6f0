// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Bytes as text, for names that are not UTF-8 (RFC 4648, with padding).
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kddc {

std::string toBase64(std::string_view bytes);

// The bytes that `text` stands for; none when toBase64 would not have written it.
std::optional<std::string> fromBase64(std::string_view text);

}  // namespace kddc
