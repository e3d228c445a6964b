// Fault modes, switched on by the presence of faults/<name> in the
// configuration directory and looked up at the moment they matter, so tests
// can flip them while the service runs.
#pragma once

class ServiceConfig;

enum class Fault {
    NoOk,         // "noOk": the start marker is answered "NO" and the connection closed
    ForeignCert,  // "foreignCert": the certificate session uses the foreign authority's pair
    WrongKey,     // "wrongKey": the key session uses a key the box cannot know
    UploadNo,     // "uploadNo": every upload header is answered "NO"
    CutUpload,    // "cutUpload": the connection is dropped half-way through an upload
    CutPush,      // "cutPush": the connection is dropped half-way through pushed data
    Silent,       // "silent": connections are accepted and never answered
    StrayEnd,     // "strayEnd": the first session's own close notification precedes the key session
    OverPush,     // "overPush": pushed data runs on past the announced size
    KeyAlert,     // "keyAlert": the key session is refused with an alert, the connection held open
    MuteAfterOk,  // "muteAfterOk": the start marker is acknowledged, then nothing more is said
    WebShort,     // "webShort": a file endpoint answer announces the whole size and sends half
    WebRedirect,  // "webRedirect": the file endpoint answers 302 to the same path
};

// The fault's file name under "faults/" (the test harness shares it).
inline const char* faultName(Fault fault) {
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
    case Fault::KeyAlert: return "keyAlert";
    case Fault::MuteAfterOk: return "muteAfterOk";
    case Fault::WebShort: return "webShort";
    case Fault::WebRedirect: return "webRedirect";
    }
    return "unknown";
}

bool faultOn(const ServiceConfig& config, Fault fault);
