// The vehicle around the service end to end: its variant, brand and
// language, the cellular module's resets and USB ports, and Bluetooth.
#include <gtest/gtest.h>

#include "support/e2eHarness.h"
