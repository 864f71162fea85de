// End-to-end tests of the emergency call on the simulated car.
#include <gtest/gtest.h>
