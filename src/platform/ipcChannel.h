// The restraint controller channel to the vehicle micro ("/dev/ipc/ch12").
// One read returns one message, one write sends one message. If the path
// (under the root) is a Unix socket, it is connected as SOCK_SEQPACKET;
// otherwise it is opened as a device with O_RDWR. The descriptor is then used
// with plain read(2), write(2) and close(2).
#pragma once

namespace platform {

// Returns a descriptor or -1 with errno set. flags are the service's open
// flags; the platform flag 0x2000 of the target has no meaning here and is
// dropped.
int ipcOpen(const char* path, int flags);

}  // namespace platform
