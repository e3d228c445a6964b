// The command catalogue: how each request to the service is spelled, which
// state files it needs, and what its reply becomes.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <strings.h>

#include "files.h"
#include "linkUtil.h"
#include "sendFile.h"
#include "text.h"
#include "stateFiles.h"

namespace {

struct Ident {
    std::string id, name;
    bool configured() const { return !id.empty() && !name.empty(); }
};

Ident identity(const char* dataDir) {
    return {readTrimmed(dataDir, StateFile::HOST_NAME),
            readTrimmed(dataDir, StateFile::DISPLAY_NAME)};
}

// Lines with a stated maximum are cut silently.
std::string cut(const std::string& line, size_t max) {
    return line.substr(0, max);
}

std::string sendLine(const std::string& line, int& status, const char* dataDir, bool verbose,
                     bool quiet, SendFile::ClientReceiveType type = SendFile::Command,
                     Memory* mem = nullptr) {
    return SendFile::sendACommand(line.c_str(), status, dataDir, verbose, quiet, type, mem);
}

// A command's reply without surrounding white space.
std::string trimmedLine(const std::string& line, int& status, const char* dataDir, bool verbose,
                        bool quiet) {
    return trim(SendFile::sendACommand(line.c_str(), status, dataDir, verbose, quiet,
                                       SendFile::Command));
}

char* result(const std::string& text, Memory* mem = nullptr) {
    return LinkUtil::handOver(text.c_str(), mem);
}

// A pushed text whose failure word "error" becomes the empty text.
char* pushed(const std::string& line, int& status, const char* dataDir, bool verbose, bool quiet,
             SendFile::ClientReceiveType type, Memory* mem) {
    char* r = SendFile::sendACommand(line.c_str(), status, dataDir, verbose, quiet, type, mem);
    return strcmp(r, "error") == 0 ? result("", mem) : r;
}

char* registration(const char* verb, const char* dataDir, int& status, const char* payload,
                   bool verbose, bool quiet) {
    std::string body;
    if (payload && *payload) {
        body = payload;
    } else {
        std::string id = readTrimmed(dataDir, StateFile::HOST_NAME);
        if (id.empty()) {
            status = 1;
            return result("");
        }
        body = cut("fqdn=" + id, 99);
    }
    return result(sendLine(std::string(verb) + "|" + body, status, dataDir, verbose, quiet));
}

}  // namespace

char* SendFile::sendACommand(const char* command, int& status, const char* dataDir, bool verb,
                             bool qu, ClientReceiveType type, Memory* mem) {
    std::string line = command ? command : "";
    if (strcasecmp(line.c_str(), "ips") == 0 || strcasecmp(line.c_str(), "ipsDNS") == 0) {
        std::string host = readTrimmed(dataDir, StateFile::HOST_NAME);
        if (!host.empty()) line += "/" + host;
    }
    SendFile session(dataDir, verb, qu);
    session.loadDests();
    char* reply;
    if (type == Command) {
        reply = session.sendCommand(line.c_str(), status, true, mem);
        if (verb && (!reply || !*reply))
            fprintf(stderr, "NULL Results from sendACommand/%s\n", line.c_str());
    } else {
        session.id = session.keep(readTrimmed(dataDir, StateFile::HOST_NAME));
        session.displayName = session.keep(readTrimmed(dataDir, StateFile::DISPLAY_NAME));
        reply = session.sendClientReceive(line.c_str(), status, type, mem);
        if (verb) {
            if (!reply || !*reply)
                fprintf(stderr, "NULL Results from sendClientReceive\n");
            else
                fprintf(stderr, "Results from sendClientReceive  %.256s\n", reply);
        }
    }
    return reply ? reply : result("", mem);
}

char* SendFile::sendACommand(const char* prefix, const char* rest, int& status, const char* dataDir,
                             bool verb, bool qu) {
    std::string line = std::string(prefix ? prefix : "") + "|" + (rest ? rest : "");
    return sendACommand(line.c_str(), status, dataDir, verb, qu, Command);
}

char* SendFile::sendInitCommand(const char* dataDir, int& status, const char* payload, bool verb,
                                bool qu) {
    return registration("init", dataDir, status, payload, verb, qu);
}

char* SendFile::sendHeartbeatCommand(const char* dataDir, int& status, const char* payload,
                                     bool verb, bool qu) {
    return registration("heartbeat", dataDir, status, payload, verb, qu);
}

char* SendFile::sendEcho(const char* dataDir, int& status, const char* a, const char* b, bool verb,
                         bool qu) {
    std::string id = readTrimmed(dataDir, StateFile::HOST_NAME);
    std::string inner = cut(std::string(a ? a : "") + "|" + (b ? b : "") + "|" + id + "|1", 255);
    return result(sendLine("echo|" + inner, status, dataDir, verb, qu));
}

int SendFile::sendFailureCommand(const char* dataDir, bool verb, bool qu, int extra) {
    long count = LinkUtil::readCount(dataDir, StateFile::COMMAND_FAILURES) + extra;
    std::string id = readTrimmed(dataDir, StateFile::HOST_NAME);
    int status = 1;
    if (!id.empty()) {
        std::string body =
            cut("fqdn=" + id + "&numFailedDicomAttempts=" + std::to_string(count), 119);
        sendLine("failure|" + body, status, dataDir, verb, qu);
    }
    if (status == 0)
        writeTxt(dataDir, StateFile::COMMAND_FAILURES, "0");
    else
        LinkUtil::writeCount(dataDir, StateFile::COMMAND_FAILURES, count);
    return status;
}

char* SendFile::getStudiesSince(const char* dataDir, const char* time, bool verb, bool qu,
                                Memory* mem) {
    Ident me = identity(dataDir);
    if (!me.configured()) return result("error", mem);
    int status = 1;
    return pushed(cut(me.id + "|STUDIES|time-since|" + (time ? time : ""), 255), status, dataDir,
                  verb, qu, ReceiveText, mem);
}

char* SendFile::getWorklistResponse(const char* dataDir, const char* keys, bool verb, bool qu,
                                    Memory* mem) {
    Ident me = identity(dataDir);
    if (!me.configured()) return result("error", mem);
    int status = 1;
    return pushed(me.id + "|WORKLIST|keys|" + (keys ? keys : ""), status, dataDir, verb, qu,
                  ReceiveText, mem);
}

char* SendFile::getQueryRetrieveResponse(const char* dataDir, const char* a, const char* b,
                                         bool verb, bool qu, Memory* mem) {
    Ident me = identity(dataDir);
    if (!me.configured()) return result("error", mem);
    int status = 1;
    return pushed(me.id + "|QR|" + (a ? a : "") + "|" + (b ? b : ""), status, dataDir, verb, qu,
                  ReceiveText, mem);
}

char* SendFile::getPreshare(const char* dataDir, int& status, const char* uid, bool verb, bool qu,
                            Memory* mem) {
    Ident me = identity(dataDir);
    if (!me.configured()) return result("error", mem);
    return pushed(cut(me.id + "|GetPreshare|Uid|" + (uid ? uid : ""), 255), status, dataDir, verb,
                  qu, ReceiveText, mem);
}

char* SendFile::getDicom(const char* dataDir, const char* uri, bool verb, bool qu) {
    Ident me = identity(dataDir);
    if (!me.configured()) return result("error");
    int status = 1;
    return pushed(me.id + "|DICOM|uri|" + (uri ? uri : ""), status, dataDir, verb, qu, ReceiveDicom,
                  nullptr);
}

int SendFile::executeMove(const char* dataDir, const char* a, const char* b, const char* query,
                          bool verb, bool qu) {
    Ident me = identity(dataDir);
    if (!me.configured()) return -1;
    int status = 1;
    std::string r =
        sendLine(me.id + "|MOVE|" + (b ? b : "") + "/" + (a ? a : "") + "|" + (query ? query : ""),
                 status, dataDir, verb, qu);
    return r.empty() ? -1 : atoi(r.c_str());
}

int SendFile::getNumRetrieves(const char* dataDir, const char* destination, bool verb, bool qu) {
    Ident me = identity(dataDir);
    if (!me.configured()) return -1;
    int status = 1;
    std::string r = sendLine(me.id + "|qDicomCt|destination|" + (destination ? destination : ""),
                             status, dataDir, verb, qu);
    return r.empty() ? -1 : atoi(r.c_str());
}

char* SendFile::sendQdicom(const char* dataDir, int& status, const char* destination, bool verb,
                           bool qu) {
    Ident me = identity(dataDir);
    if (!me.configured()) return result("error");
    std::string r = sendLine(me.id + "|qDicom|destination|" + (destination ? destination : ""),
                             status, dataDir, verb, qu);
    return result(r == "0|NONE" ? "" : r);
}

char* SendFile::sendQdicom1(const char* dataDir, int& status, bool verb, bool qu) {
    Ident me = identity(dataDir);
    if (!me.configured()) return result("error");
    std::string r = sendLine(me.id + "|qDicom1|deviceId|" + me.id, status, dataDir, verb, qu);
    return result(r == "0|title|NONE" ? "" : r);
}

char* SendFile::sendCancelMove(const char* dataDir, const char* title, bool verb, bool qu) {
    Ident me = identity(dataDir);
    if (!me.configured()) return result("error");
    int status = 1;
    return result(
        sendLine(me.id + "|dDicom|title|" + (title ? title : ""), status, dataDir, verb, qu));
}

char* SendFile::sendDdicom(const char* dataDir, int& status, int n, const char* text, bool verb,
                           bool qu) {
    Ident me = identity(dataDir);
    if (!me.configured()) return result("error");
    std::string line = me.id + "|dDicom|id|" + std::to_string(n);
    if (text && *text) line += "-" + std::string(text).substr(0, 250);
    return result(sendLine(cut(line, 299), status, dataDir, verb, qu));
}

char* SendFile::sendLogMsg(const char* dataDir, int& status, const char* message, bool verb,
                           bool qu) {
    std::string id = readTrimmed(dataDir, StateFile::HOST_NAME);
    std::string msg = message ? std::string(message).substr(0, 2048) : "";
    return result(sendLine(id + "|LOG|msg|" + msg, status, dataDir, verb, qu));
}

bool SendFile::isRepeat(const char* dataDir, int& status, const char* uid, bool verb, bool qu) {
    Ident me = identity(dataDir);
    if (!me.configured()) return false;
    return sendLine(me.id + "|REPEAT|uid|" + (uid ? uid : ""), status, dataDir, verb, qu) == "yes";
}

char* SendFile::getCropInfo(const char* dataDir, int& status, const char* a, const char* b,
                            bool verb, bool qu) {
    Ident me = identity(dataDir);
    if (!me.configured()) return result("error");
    return result(
        sendLine(me.id + "|CROP|" + (a ? a : "") + "|" + (b ? b : ""), status, dataDir, verb, qu));
}

char* SendFile::sendAPICommand(const char* dataDir, const char* json, bool verb, bool qu,
                               Memory* mem) {
    const char* j = json ? json : "";
    std::string type = "nothing";
    const char* at = strstr(j, "request_type\"");
    if (!at) return result("error", mem);
    const char* open = strchr(at + 13, '"');
    const char* close = open ? strchr(open + 1, '"') : nullptr;
    if (!close) return result("error", mem);
    type.assign(open + 1, std::min<size_t>((size_t)(close - open - 1), 127));
    std::string id = readTrimmed(dataDir, StateFile::HOST_NAME);
    if (id.empty()) return result("error", mem);
    std::string name = Box::plainName(readTrimmed(dataDir, StateFile::DISPLAY_NAME));
    std::string line = "API/" + id + "/" + name + "/1|" + type + "|" + j;
    int status = 1;
    // The service's reply goes straight to the caller's arena: it may be
    // longer than the shared ring takes.
    char* r = sendACommand(line.c_str(), status, dataDir, verb, qu, Command, mem);
    if (!*r) {
        sendIpsCommand(dataDir, verb, qu);
        r = sendACommand(line.c_str(), status, dataDir, verb, qu, Command, mem);
    }
    return *r ? r : result("error", mem);
}

// ------------------------------------------------------------------ server list

namespace {
thread_local bool t_inRefresh = false;
}

int SendFile::sendIpsCommand(const char* dataDir, bool verb, bool qu) {
    if (t_inRefresh) return 1;
    t_inRefresh = true;
    std::string old = readTrimmed(dataDir, StateFile::SERVERS);
    std::string receiver = readTrimmed(dataDir, StateFile::RECEIVER);
    std::string verbName = "ips";
    if (!old.empty()) {
        if (old.find(RECEIVER_HOST) != std::string::npos) verbName = "ipsDNS";
    } else {
        writeTxt(dataDir, StateFile::SERVERS, receiver.empty() ? BUILTIN_SERVERS : receiver.c_str());
    }
    int status = 1;
    std::string reply = trimmedLine(verbName, status, dataDir, verb, qu);
    bool first = true;
    if (reply.empty()) {
        first = false;
        writeTxt(dataDir, StateFile::SERVERS, receiver.empty() ? BUILTIN_SERVERS : receiver.c_str());
        reply = trimmedLine("ips", status, dataDir, verb, qu);
    }
    if (reply.empty()) {
        if (!receiver.empty()) {
            writeTxt(dataDir, StateFile::SERVERS, receiver.c_str());
            reply = trimmedLine("ips", status, dataDir, verb, qu);
        } else {
            writeTxt(dataDir, StateFile::SERVERS, RECEIVER_HOST);
            reply = trimmedLine("ipsDNS", status, dataDir, verb, qu);
        }
        if (reply.empty()) {
            t_inRefresh = false;
            return status;
        }
    }
    if (!(first && reply == old)) writeTxt(dataDir, StateFile::SERVERS, reply.c_str());
    t_inRefresh = false;
    return status;
}
