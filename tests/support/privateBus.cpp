#include "support/privateBus.h"

namespace testSupport {

PrivateBus::PrivateBus() {}
PrivateBus::~PrivateBus() {}

}  // namespace testSupport
