// The libFuzzer entry point shared by the parser targets: each input is
// checked twice, as raw bytes and as the runner hands git's output over
// (decoded UTF-8 with LF line ends). A target defines `check` before
// including this file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "utils/git_utils.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    check(text);
    git_utils::decode_git_text(text);
    check(text);
    return 0;
}
