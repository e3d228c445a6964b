#include "faults.h"

#include <string>

#include "serviceConfig.h"

bool faultOn(const ServiceConfig& config, Fault fault) {
    return config.flag(std::string("faults/") + faultName(fault));
}
