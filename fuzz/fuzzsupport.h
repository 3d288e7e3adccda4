#pragma once

#include <QString>

#include <cstddef>
#include <cstdint>

// Helpers shared by the libFuzzer targets. Linking this library also provides
// LLVMFuzzerInitialize, which creates the Qt application every target needs.
namespace TarnFuzz {

// The input decoded as UTF-8, as the WebSocket layer decodes a text frame;
// invalid sequences become replacement characters.
QString Utf8Text(const uint8_t *data, size_t size);

// Aborts when a property of the code under test does not hold, so that
// libFuzzer records the input as a crash.
void Require(bool condition, const char *property);

} // namespace TarnFuzz
