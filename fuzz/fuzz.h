// What every fuzzer gives its driver.
#pragma once

#include <cstddef>
#include <cstdint>

// One input; a fault is whatever a sanitizer or an abort finds.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

// Words that inputs are made of, so that they get past the first check; ends with NULL.
extern const char *const fuzz_words[];
