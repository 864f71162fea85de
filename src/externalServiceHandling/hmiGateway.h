// The HMI gateway as the processor sees it: the pop-ups it asks the user
// interface to show. The request texts are built here and nowhere else.
#pragma once

#include "platform/serviceBus.h"

namespace hmiGateway {

// The "please wait" pop-up, shown for 5 s even with the display off, while
// the phone may still come up; bounded by the peer reply bound.
SVCIPC_tError displayPleaseWaitPopup();

}  // namespace hmiGateway
