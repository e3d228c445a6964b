#include "faults.h"

#include <string>

#include "serviceConfig.h"

const char* faultName(Fault fault) {
    switch (fault) {
    case Fault::NoOk: return "noOk";
    case Fault::ForeignCert: return "foreignCert";
    case Fault::WrongKey: return "wrongKey";
    case Fault::UploadNo: return "uploadNo";
    case Fault::CutUpload: return "cutUpload";
    case Fault::CutPush: return "cutPush";
    case Fault::Silent: return "silent";
    case Fault::StrayEnd: return "strayEnd";
    case Fault::OverPush: return "overPush";
    }
    return "unknown";
}

bool faultOn(const ServiceConfig& config, Fault fault) {
    return config.flag(std::string("faults/") + faultName(fault));
}
