// What every connection of the service shares.
#pragma once
#include <string>

#include "commandLog.h"
#include "serviceConfig.h"
#include "tlsServer.h"

struct ServiceContext {
    ServiceConfig& config;
    CommandLog& log;
    Credentials& ownCredentials;      // issued by the authority the box pins
    Credentials& foreignCredentials;  // issued by another authority
    RandomSource& random;
    std::string address;              // the address listened on
};
