// The emergency inputs end to end: the airbag controller's channel, the
// mirror buttons, the mirror LED and the Assist application.
#include <gtest/gtest.h>

#include "support/e2eHarness.h"
