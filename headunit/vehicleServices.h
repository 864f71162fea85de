// The services that tell ecallService what car it is in, answered from the
// configuration file: the vehicle configuration (brand, test number, and the
// market, VIN, vehicle category and propulsion where set), the vehicle status
// (language, and the fastened seat belts where set) and the platform
// (whether the variant has the embedded phone, the software version).
#pragma once

#include "config.h"
#include "standIns.h"

namespace headunit {

FixedServices vehicleServices(const Config& config);

}  // namespace headunit
