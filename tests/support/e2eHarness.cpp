#include "support/e2eHarness.h"
