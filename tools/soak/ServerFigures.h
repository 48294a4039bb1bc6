// The serving process's own figures the soak compares at start and end.
#pragma once

#include <cstddef>

namespace velacam::soak {

// Descriptors open in this process (/proc/self/fd, the listing's own excluded).
size_t openDescriptorCount();
// Resident memory of this process in bytes, after freed heap memory was given
// back to the system (so that what is counted is what is still in use).
size_t residentBytes();

}  // namespace velacam::soak
