// Tells the service manager how the service is doing. Under systemd with
// Type=notify the unit counts as started only once the service says it is
// ready; started by hand (no service manager listening) it does nothing.
#pragma once

namespace platform {

// The service is up and serving its bus name. Returns true when a service
// manager listened and was told, false when none listens or the message
// could not be sent.
bool notifyReady();

}  // namespace platform
