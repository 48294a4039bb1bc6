// Test helper: tells apart what the kernel does from what an emulator running
// this program (qemu-user, for the aarch64 build on an x86-64 machine) does
// differently, so that a case that depends on the kernel's own behaviour can
// skip itself, with the reason, where it cannot hold.
#pragma once

namespace velacam::test {

// True when descriptors that a receive had no room for stay open in this
// process. The kernel closes them itself (and sets MSG_CTRUNC); qemu-user
// receives into a larger control buffer of its own and keeps those it cannot
// hand over. Probed once, on first use.
bool undeliveredDescriptorsStayOpen();

}  // namespace velacam::test
