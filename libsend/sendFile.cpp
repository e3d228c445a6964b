// The session object: destination list, connection set-up, closing, and
// the file upload.
#include "sendFile.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "buildConfig.h"
#include "files.h"
#include "bounds.h"
#include "linkUtil.h"
#include "morvaAlarms.h"
#include "morvaNet.h"
#include "random.h"
#include "text.h"
#include "dicom.h"
#include "tlsSession.h"
#include "util.h"
#include "stateFiles.h"

const char* const RECEIVER_HOST = HUBTALK_RECEIVER_HOST;
const char* const BUILTIN_SERVERS = HUBTALK_BUILTIN_SERVERS;
const char* const DEFAULT_PORT = "443";
const char* const DEFAULT_HOST_PORT = "4443";


namespace {


uint64_t random64() {
    unsigned char b[8];
    getRandomNumber(b, 8);
    uint64_t r = 0;
    for (int i = 0; i < 8; ++i) r = (r << 8) | b[i];
    return r;
}

// Base64 field of a name marker; "" when it does not decode.
std::string decodeField(const char* text) {
    std::string copy = text;
    int n = 0;
    char* bytes = decode(&copy[0], n, (int)copy.size());
    std::string out;
    if (bytes && n > 0) out.assign(bytes, strnlen(bytes, (size_t)n));
    free(bytes);
    return out;
}

// A state file's text trimmed on the right only ("" when missing).
std::string readRightTrimmed(const char* dir, const StateFileName& file) {
    std::string text = readText(dir, file.name, file.most);
    return rtrim(&text[0]);
}

// "address:port" ("[address]:port" for IPv6), without a name lookup.
std::string numericAddress(const sockaddr* address, socklen_t length) {
    char host[NI_MAXHOST], port[NI_MAXSERV];
    if (getnameinfo(address, length, host, sizeof host, port, sizeof port, NI_NUMERICHOST | NI_NUMERICSERV) != 0)
        return "";
    bool six = address->sa_family == AF_INET6;
    return std::string(six ? "[" : "") + host + (six ? "]:" : ":") + port;
}

std::string keyMismatch(const char* key) {
    char text[160];
    snprintf(text, sizeof text,
             "Fatal error during TLS handshake:  key mismatch most likely (%.96s)", key);
    return text;
}

}  // namespace

// ------------------------------------------------------------------ sessions

SendFile::SendFile(const char* dir, bool verb, bool qu) : Box(dir, "", "") {
    dataDir = keep(dir ? dir : "");
    verbose = verb;
    quiet = qu;
}

SendFile::SendFile(const char* dir, const char* fileName, const char* remote, const char* marker,
                   const char* dDir, const char* a, const char* b, const char* boxId,
                   bool unprocessed)
    : Box(dir, fileName, boxId) {
    dataDir = keep(dDir ? dDir : "");
    remoteName = keep(remote ? remote : (fileName ? fileName : ""));
    markerName = keep(marker);
    std::string fa = a ? a : "", fb = b ? b : "";
    if (!isRegularFile(filePath) || !(file = fopen(filePath, "rbe"))) {
        fprintf(stderr, "FileName (%s) does not exist, aborting\n", filePath);
        fieldA = keep(fa.c_str());
        fieldB = keep(fb.c_str());
        return;
    }
    fileOpened = true;
    fseeko(file, 0, SEEK_END);
    fileSize = ftello(file);
    fseeko(file, 0, SEEK_SET);
    displayName = keep(readRightTrimmed(dataDir, StateFile::DISPLAY_NAME).c_str());
    std::string who = id;
    if (who == "NONE") who = readRightTrimmed(dataDir, StateFile::HOST_NAME);

    std::string sopName;
    char* mk = markerName ? markerName : remoteName;
    static const char* const markers[] = {".dcm~", ".jpg~", ".mp4~"};
    for (int m = 0; m < 3; ++m) {
        char* at = strstr(mk, markers[m]);
        if (!at) continue;
        if (m == 0) {
            char uid[101];
            if (getSopInstance(filePath, uid, (int)sizeof uid)) sopName = std::string(uid) + ".dcm";
        }
        int count = 0;
        char** parts = Util::split(at + 5, '~', &count, &arena);
        if (count == 3) {
            fa = decodeField(parts[0]);
            fb = decodeField(parts[1]);
            who += "/" + std::string(parts[2]);
        }
        at[4] = '\0';
        break;
    }
    id = keep(who.c_str());
    fieldA = keep(fa.c_str());
    fieldB = keep(fb.c_str());
    char size[24];
    snprintf(size, sizeof size, "%u", (unsigned)(fileSize & 0xffffffffu));
    std::string h = who + "|" + (sopName.empty() ? std::string(remoteName) : sopName) + "|" + size +
                    "|" + fa + (unprocessed ? "._UNP_" : "") + "|" + fb + "|~~|1";
    header = keep(h.c_str());
}

SendFile::~SendFile() {
    if (sock >= 0 || alarmIndex >= 0) SendFile::shutdown("Success", false);
    if (file) fclose(file);
    if (removeFile && fileOpened) unlink(filePath);
    free(hosts);
    free(ports);
}

// ------------------------------------------------------------------ destinations

void SendFile::appendDest(const char* host, const char* port) {
    if (!hosts) {
        hostCapacity = 64;
        hosts = static_cast<char**>(malloc(sizeof(char*) * hostCapacity));
        ports = static_cast<char**>(malloc(sizeof(char*) * hostCapacity));
    } else if ((uint32_t)hostCount + 1 >= hostCapacity) {
        hostCapacity += 128;
        hosts = static_cast<char**>(realloc(hosts, sizeof(char*) * hostCapacity));
        ports = static_cast<char**>(realloc(ports, sizeof(char*) * hostCapacity));
    }
    hosts[hostCount] = keep(host);
    ports[hostCount] = keep(port);
    ++hostCount;
}

void SendFile::addDest(const char* host, const char* port, const char* defaultHostPort) {
    if (!host) return;
    appendDest(host, strcmp(host, RECEIVER_HOST) == 0 ? defaultHostPort : port);
}

void SendFile::rotateBy(int r) {
    std::rotate(hosts, hosts + r, hosts + hostCount);
    std::rotate(ports, ports + r, ports + hostCount);
}

void SendFile::shuffleDests() {
    if (hostCount > 0) rotateBy((int)(random64() % (uint64_t)hostCount));
}

void SendFile::rotatePastFirst() {
    if (hostCount > 1) rotateBy(1 + (int)(random64() % (uint64_t)(hostCount - 1)));
}

void SendFile::loadDests() {
    std::string port = readTrimmed(dataDir, StateFile::PORT);
    if (port.empty()) port = DEFAULT_PORT;
    std::string list = readTrimmed(dataDir, StateFile::SERVERS);
    if (list.empty()) {  // (a refresh already under way returns at once)
        sendIpsCommand(dataDir, verbose, quiet);
        list = readTrimmed(dataDir, StateFile::SERVERS);
    }
    if (list.empty()) list = RECEIVER_HOST;
    int n = 0;
    char** entries = Util::split(list.c_str(), '\n', &n, &arena);
    int r = (int)(random64() % (uint64_t)n);
    for (int i = 0; i < n; ++i) addDest(trim(entries[(r + i) % n]), port.c_str(), DEFAULT_HOST_PORT);
}

// ------------------------------------------------------------------ connection

bool SendFile::connectSession() {
    if (socketOpen()) return true;
    sock = -1;
    if (alarmIndex < 0) alarmIndex = m_alarms->regThread(pthread_self());
    CatchAlarm::install();
    m_alarms->forgetSocket(alarmIndex);
    auto openSocket = [this]() {
        sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
        if (sock >= 0) Network::setSessionOptions(sock);
        m_alarms->forgetSocket(alarmIndex);
        return sock >= 0;
    };
    if (!openSocket()) {
        shutdown("Socket system call failed", true);
        return false;
    }
    AddrInfo ai;
    ai.init(hostCount, hosts, ports, true, verbose, quiet);
    if (!ai.result) {
        shutdown("AddrInfo failed - check connectivity", true);
        return false;
    }
    for (int attempt = 0; attempt < 3; ++attempt) {
        m_alarms->arm(alarmIndex, Limits::LINK_STEP_MS, sock);
        int rc = connect(sock, ai.result->ai_addr, ai.result->ai_addrlen);
        m_alarms->disarm(alarmIndex);
        if (rc == 0) {
            reached = numericAddress(ai.result->ai_addr, ai.result->ai_addrlen);
            return true;
        }
        // A socket whose connect failed (or that the watchdog closed) is not
        // reliably reusable: start the next attempt on a fresh one.
        int err = errno;
        if (socketOpen()) close(sock);
        sock = -1;
        if (!openSocket()) {
            errno = err;
            shutdown("Socket system call failed", true);
            return false;
        }
        if (attempt == 2) break;
        // The server that just failed is not tried again straight away.
        rotatePastFirst();
        ai.init(hostCount, hosts, ports, true, false, false);
        if (!ai.result) {
            shutdown("AddrInfo failed - check connectivity", true);
            return false;
        }
    }
    // Unconnected: the transport's first send fails and reports it.
    return true;
}

bool SendFile::sendAll(const void* data, size_t length) {
    const char* p = static_cast<const char*>(data);
    while (length > 0) {
        if (!socketOpen()) return false;
        ssize_t n = ::send(sock, p, length, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR && !m_alarms->fired(alarmIndex)) continue;  // a stray signal
        if (n <= 0) return false;
        p += n;
        length -= (size_t)n;
    }
    return true;
}

bool SendFile::shutdown(const char* message, bool doReport) {
    Box::shutdown(message, doReport);
    if (alarmIndex >= 0) {
        m_alarms->unregThread(alarmIndex);
        alarmIndex = -1;
    }
    return doReport;
}

bool SendFile::shutdown(const char* message, TlsSession* tls, bool doReport) {
    int err = errno;
    if (tls) tls->close();
    errno = err;
    return shutdown(message, doReport);
}

// ------------------------------------------------------------------ upload

std::unique_ptr<TlsSession> SendFile::keySession() {
    char* key = gtk();
    // On the heap: the entropy context alone is ~38 KiB, and listener workers
    // run on 64 KiB stacks.
    auto tls = std::make_unique<TlsSession>(this);
    int rc = tls->configurePsk(key);
    if (rc == 0) {
        m_alarms->arm(alarmIndex, Limits::LINK_STEP_MS, sock);
        rc = tls->handshake();
        m_alarms->disarm(alarmIndex);
    }
    if (rc == 0) return tls;
    shutdown(keyMismatch(key).c_str(), tls.get(), true);
    return nullptr;
}

bool SendFile::sendFile() {
    if (!displayName || !*displayName) return shutdown("Unconfigured host ... failing", true);
    if (!header || !file) return shutdown("Input file cannot be read", true);
    m_alarms->monitor();
    int status = 1;
    char* reply = sendCommand(header, status, false);
    if (status != 0) return true;  // the transport has reported and closed
    if (strcmp(reply, "NO") == 0) return shutdown("Success", false);

    auto session = keySession();
    if (!session) return true;
    TlsSession& tls = *session;
    int off = 0;
    setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &off, sizeof off);

    m_alarms->arm(alarmIndex, Limits::transferMs((unsigned long long)fileSize), sock);
    unsigned char* buffer = static_cast<unsigned char*>(malloc(Limits::TRANSFER_CHUNK + 64));
    int64_t sent = 0;
    while (sent < fileSize) {
        int64_t left = fileSize - sent;
        size_t want = left < (int64_t)Limits::TRANSFER_CHUNK ? (size_t)left : Limits::TRANSFER_CHUNK;
        size_t got = fread(buffer, 1, want, file);
        if (got == 0) {
            free(buffer);
            return shutdown("Input file shrank during upload", &tls, true);
        }
        if (tls.writeAll(buffer, got) < 0) {
            free(buffer);
            return shutdown("mbedtls_ssl_write  failed", &tls, true);
        }
        sent += (int64_t)got;
    }
    free(buffer);
    // Pushes out the last partial segment now, instead of after the
    // service's delayed acknowledgement of the one before it.
    int on = 1;
    setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);

    unsigned char confirm[65];
    memset(confirm, 0, sizeof confirm);
    int rc;
    do {
        rc = mbedtls_ssl_read(&tls.ssl, confirm, 64);
    } while (rc == MBEDTLS_ERR_SSL_WANT_WRITE);
    if (rc == MBEDTLS_ERR_SSL_WANT_READ) {
        // Interrupted but not timed out: give the service another minute.
        if (socketOpen()) {
            unsigned left = m_alarms->getRemainingMs(alarmIndex);
            m_alarms->disarm(alarmIndex);
            m_alarms->arm(alarmIndex, left + Limits::LINK_STEP_MS, sock);
        }
        rc = tls.read(confirm, 64);
    }
    if (rc > 0) {
        m_alarms->disarm(alarmIndex);
        return shutdown("Success", &tls, false);
    }
    return shutdown("final confirmation of file was not received", &tls, true);
}

std::string SendFile::namedFile(const char* text) {
    if (!text) return "";
    std::string p = text;
    if (!isRegularFile(p.c_str())) {
        std::string copy = p;
        p = trim(&copy[0]);
        size_t blank = p.find_last_of(' ');
        if (blank != std::string::npos) p = p.substr(blank + 1);
    }
    return isRegularFile(p.c_str()) ? p : "";
}

int SendFile::sendWFile(const char* path, const char* remote, const char* marker, const char* a,
                        const char* b, const char* dDir, bool qu, bool unprocessed, Outcome* outcome) {
    if (outcome) *outcome = Outcome();
    std::string p = path ? namedFile(path) : "";
    if (p.empty()) {
        if (path) fprintf(stderr, "Input file %s cannot be found\n", path);
        if (outcome) outcome->failure = "Input file cannot be found";
        return 1;
    }
    size_t slash = p.find_last_of('/');
    std::string dir = slash == std::string::npos ? "." : p.substr(0, slash);
    std::string name = slash == std::string::npos ? p : p.substr(slash + 1);
    bool failed;
    {
        SendFile session(dir.c_str(), name.c_str(), remote ? remote : name.c_str(), marker, dDir, a,
                         b, "NONE", unprocessed);
        session.quiet = qu;
        bool q = session.quiet;
        session.quiet = false;  // the list load refreshes with both flags off
        session.loadDests();
        session.quiet = q;
        failed = session.sendFile();
        if (outcome) {
            outcome->server = session.reached;
            if (failed) outcome->failure = session.failure.empty() ? "not delivered" : session.failure;
        }
    }
    if (failed)
        LinkUtil::writeCount(dDir, StateFile::UPLOAD_FAILURES,
                             LinkUtil::readCount(dDir, StateFile::UPLOAD_FAILURES) + 1);
    else
        writeTxt(dDir, StateFile::UPLOAD_FAILURES, "0");
    return failed ? 1 : 0;
}

int SendFile::sendAFile(const char* path, const char* a, const char* b, const char* dDir, bool qu,
                        Outcome* outcome) {
    return sendWFile(path, nullptr, nullptr, a, b, dDir, qu, false, outcome);
}
