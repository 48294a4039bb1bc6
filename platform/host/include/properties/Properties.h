// Host stand-in for the camera stack's system-property reader.
//
// A property is read from the environment: first the variable named exactly
// like the key ("vendor.debug.ipc.framework.log"), then the key upper-cased
// with dots turned into underscores ("VENDOR_DEBUG_IPC_FRAMEWORK_LOG").
#pragma once

#include <cstdint>

namespace Kestrel::Utils::Properties {

// Returns the property as a decimal integer, or `defaultValue` when it is
// unset or is not a whole number in the 32-bit range.
int32_t property_get_int32(const char* key, int32_t defaultValue);

}  // namespace Kestrel::Utils::Properties
