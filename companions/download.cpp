// download [--ca FILE] [--timeout SECONDS] URL PATH
//
// Fetches URL into PATH for the agent's self-update and the measurement
// definitions. Only a complete answer replaces PATH: the body goes into a
// temporary beside it, and the rename follows once exactly the announced
// bytes are on disk. Exit status 0 on success; otherwise one line
// "download: <reason>" on standard error and PATH as it was.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <mbedtls/ctr_drbg.h>
#include <mbedtls/entropy.h>
#include <mbedtls/error.h>
#include <mbedtls/net_sockets.h>
#include <mbedtls/ssl.h>
#include <mbedtls/x509_crt.h>

#include "companions/httpFetch.h"
#include "hubTalk/startup.h"
#include "libmorva/bounds.h"

namespace {

const char USAGE[] = "usage: download [--ca FILE] [--timeout SECONDS] URL PATH";
const mode_t FILE_MODE = 0664;

// The temporary being written, and the time-out's line: static buffers, as
// the alarm handler may touch nothing else.
char g_temporary[4096];
char g_timeoutLine[96];
size_t g_timeoutLength;

[[noreturn]] __attribute__((format(printf, 1, 2))) void fail(const char* format, ...) {
    alarm(0);
    if (g_temporary[0]) unlink(g_temporary);
    char reason[1024];
    va_list ap;
    va_start(ap, format);
    vsnprintf(reason, sizeof reason, format, ap);
    va_end(ap);
    for (char* p = reason; *p; ++p)
        if (*p == '\n' || *p == '\r') *p = ' ';
    fprintf(stderr, "download: %s\n", reason);
    exit(1);
}

// Name resolution resumes after signals, so the bound cannot interrupt a
// call and return: it ends the process.
extern "C" void onAlarm(int) {
    if (g_temporary[0]) unlink(g_temporary);
    ssize_t ignored = write(STDERR_FILENO, g_timeoutLine, g_timeoutLength);
    (void)ignored;
    _exit(1);
}

std::string tlsError(int code) {
    char text[160];
    mbedtls_strerror(code, text, sizeof text);
    return text;
}

struct Options {
    std::string ca;
    unsigned int timeout = Limits::DOWNLOAD_TIMEOUT_S;
    std::string url, path;
};

Options parseArguments(int argc, char** argv) {
    Options o;
    std::vector<std::string> plain;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--ca" || a == "--timeout") {
            if (i + 1 >= argc) fail("%s needs a value; %s", a.c_str(), USAGE);
            std::string v = argv[++i];
            if (a == "--ca") {
                o.ca = v;
                continue;
            }
            char* end = nullptr;
            errno = 0;
            unsigned long s = strtoul(v.c_str(), &end, 10);
            if (v.empty() || v[0] == '-' || *end || errno || s == 0 || s > 0xFFFFFFFFul)
                fail("bad --timeout \"%s\": whole seconds above 0", v.c_str());
            o.timeout = static_cast<unsigned int>(s);
        } else if (a.size() > 1 && a[0] == '-') {
            fail("unknown option %s; %s", a.c_str(), USAGE);
        } else {
            plain.push_back(a);
        }
    }
    if (plain.size() != 2) fail("%s", USAGE);
    o.url = plain[0];
    o.path = plain[1];
    return o;
}

// The one authority the server's certificate must come from: --ca, else the
// pinned "sundel.crt" of the agent's data directory.
void loadAuthority(const std::string& given, mbedtls_x509_crt* ca) {
    std::string path = given;
    if (path.empty()) {
        const char* dataDir = getenv(DATA_DIR_ENV);
        if (!dataDir || !*dataDir) fail("no certificate authority: give --ca FILE or set %s", DATA_DIR_ENV);
        path = std::string(dataDir) + "/sundel.crt";
    }
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) fail("certificate authority %s: %s", path.c_str(), strerror(errno));
    std::vector<unsigned char> pem;
    unsigned char buf[16384];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0) {
        pem.insert(pem.end(), buf, buf + n);
        if (pem.size() > static_cast<size_t>(Limits::CA_FILE_MOST)) fail("certificate authority %s too large", path.c_str());
    }
    close(fd);
    if (n < 0) fail("certificate authority %s: %s", path.c_str(), strerror(errno));
    pem.push_back(0);  // PEM text is parsed with its terminator
    int r = mbedtls_x509_crt_parse(ca, pem.data(), pem.size());
    if (r != 0) fail("certificate authority %s: %s", path.c_str(), tlsError(r).c_str());
}

// One connection, plain or TLS, reading ahead in large pieces so that a TLS
// record costs no system calls of its own.
class Connection {
public:
    Connection() : m_ahead(Limits::DOWNLOAD_READ_AHEAD) {
        mbedtls_ssl_init(&m_ssl);
        mbedtls_ssl_config_init(&m_conf);
        mbedtls_ctr_drbg_init(&m_drbg);
        mbedtls_entropy_init(&m_entropy);
    }
    ~Connection() {
        mbedtls_ssl_free(&m_ssl);
        mbedtls_ssl_config_free(&m_conf);
        mbedtls_ctr_drbg_free(&m_drbg);
        mbedtls_entropy_free(&m_entropy);
        if (m_fd >= 0) close(m_fd);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void dial(const Url& url);
    void secure(const Url& url, mbedtls_x509_crt* ca);
    void writeAll(const std::string& text);
    // > 0 bytes, 0 the server ended the connection, < 0 failure (error()).
    int read(unsigned char* buf, size_t len);
    const std::string& error() const { return m_error; }

private:
    ssize_t rawRead(unsigned char* buf, size_t len);
    static int bioSend(void* ctx, const unsigned char* buf, size_t len);
    static int bioRecv(void* ctx, unsigned char* buf, size_t len);

    int m_fd = -1;
    bool m_tls = false;
    std::vector<unsigned char> m_ahead;
    size_t m_pos = 0, m_end = 0;
    std::string m_error;
    mbedtls_ssl_context m_ssl;
    mbedtls_ssl_config m_conf;
    mbedtls_ctr_drbg_context m_drbg;
    mbedtls_entropy_context m_entropy;
};

void Connection::dial(const Url& url) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    int r = getaddrinfo(url.host.c_str(), url.port.c_str(), &hints, &list);
    if (r != 0) fail("cannot resolve %s: %s", url.host.c_str(), gai_strerror(r));
    bool passedBy = false;
    std::string lastError;
    for (addrinfo* ai = list; ai && m_fd < 0; ai = ai->ai_next) {
        // Clear text never leaves the machine: other addresses are not dialled.
        if (!url.secure && !isLoopback(ai->ai_addr)) {
            passedBy = true;
            continue;
        }
        int fd = socket(ai->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            lastError = strerror(errno);
            continue;
        }
        if (connect(fd, ai->ai_addr, ai->ai_addrlen) == 0) {
            m_fd = fd;
        } else {
            lastError = strerror(errno);
            close(fd);
        }
    }
    freeaddrinfo(list);
    if (m_fd >= 0) return;
    if (passedBy && lastError.empty())
        fail("plain http refused: %s is not a loopback address (https only)", url.host.c_str());
    fail("cannot connect to %s port %s: %s", url.host.c_str(), url.port.c_str(), lastError.c_str());
}

void Connection::secure(const Url& url, mbedtls_x509_crt* ca) {
    int r = mbedtls_ctr_drbg_seed(&m_drbg, mbedtls_entropy_func, &m_entropy, nullptr, 0);
    if (r == 0)
        r = mbedtls_ssl_config_defaults(&m_conf, MBEDTLS_SSL_IS_CLIENT, MBEDTLS_SSL_TRANSPORT_STREAM,
                                        MBEDTLS_SSL_PRESET_DEFAULT);
    if (r != 0) fail("TLS set-up: %s", tlsError(r).c_str());
    mbedtls_ssl_conf_authmode(&m_conf, MBEDTLS_SSL_VERIFY_REQUIRED);
    mbedtls_ssl_conf_ca_chain(&m_conf, ca, nullptr);
    mbedtls_ssl_conf_rng(&m_conf, mbedtls_ctr_drbg_random, &m_drbg);
    r = mbedtls_ssl_setup(&m_ssl, &m_conf);
    // A name is checked against the certificate. A numeric address is not:
    // this mbed TLS cannot match addresses among the subject's alternative
    // names, so there only the pinned authority stands between us and a
    // stranger (the development server's certificate names "local-service").
    if (r == 0) r = mbedtls_ssl_set_hostname(&m_ssl, url.numericHost ? nullptr : url.host.c_str());
    if (r != 0) fail("TLS set-up: %s", tlsError(r).c_str());
    mbedtls_ssl_set_bio(&m_ssl, this, bioSend, bioRecv, nullptr);
    while ((r = mbedtls_ssl_handshake(&m_ssl)) != 0) {
        if (r == MBEDTLS_ERR_SSL_WANT_READ || r == MBEDTLS_ERR_SSL_WANT_WRITE) continue;
        uint32_t flags = mbedtls_ssl_get_verify_result(&m_ssl);
        if (r == MBEDTLS_ERR_X509_CERT_VERIFY_FAILED && flags != 0 && flags != static_cast<uint32_t>(-1)) {
            char info[512];
            mbedtls_x509_crt_verify_info(info, sizeof info, "", flags);
            std::string text = info;
            while (!text.empty() && text.back() == '\n') text.pop_back();
            for (char& c : text)
                if (c == '\n') c = ';';
            fail("certificate of %s not accepted: %s", url.host.c_str(), text.c_str());
        }
        fail("TLS handshake with %s: %s", url.host.c_str(), tlsError(r).c_str());
    }
    m_tls = true;
}

ssize_t Connection::rawRead(unsigned char* buf, size_t len) {
    if (m_pos == m_end) {
        ssize_t n;
        do n = recv(m_fd, m_ahead.data(), m_ahead.size(), 0);
        while (n < 0 && errno == EINTR);
        if (n < 0) m_error = strerror(errno);
        if (n <= 0) return n;
        m_pos = 0;
        m_end = static_cast<size_t>(n);
    }
    size_t n = m_end - m_pos < len ? m_end - m_pos : len;
    memcpy(buf, m_ahead.data() + m_pos, n);
    m_pos += n;
    return static_cast<ssize_t>(n);
}

int Connection::bioRecv(void* ctx, unsigned char* buf, size_t len) {
    ssize_t n = static_cast<Connection*>(ctx)->rawRead(buf, len);
    return n < 0 ? MBEDTLS_ERR_NET_RECV_FAILED : static_cast<int>(n);
}

int Connection::bioSend(void* ctx, const unsigned char* buf, size_t len) {
    Connection& c = *static_cast<Connection*>(ctx);
    ssize_t n;
    do n = send(c.m_fd, buf, len, MSG_NOSIGNAL);
    while (n < 0 && errno == EINTR);
    if (n < 0) {
        c.m_error = strerror(errno);
        return MBEDTLS_ERR_NET_SEND_FAILED;
    }
    return static_cast<int>(n);
}

void Connection::writeAll(const std::string& text) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(text.data());
    size_t left = text.size();
    while (left > 0) {
        int n = m_tls ? mbedtls_ssl_write(&m_ssl, p, left) : bioSend(this, p, left);
        if (n == MBEDTLS_ERR_SSL_WANT_READ || n == MBEDTLS_ERR_SSL_WANT_WRITE) continue;
        if (n <= 0) fail("sending the request: %s", m_tls ? tlsError(n).c_str() : m_error.c_str());
        p += n;
        left -= static_cast<size_t>(n);
    }
}

int Connection::read(unsigned char* buf, size_t len) {
    if (!m_tls) return static_cast<int>(rawRead(buf, len));
    for (;;) {
        int r = mbedtls_ssl_read(&m_ssl, buf, len);
        if (r >= 0) return r;
        if (r == MBEDTLS_ERR_SSL_WANT_READ || r == MBEDTLS_ERR_SSL_WANT_WRITE) continue;
        if (r == MBEDTLS_ERR_SSL_PEER_CLOSE_NOTIFY || r == MBEDTLS_ERR_SSL_CONN_EOF) return 0;
        m_error = tlsError(r);
        return -1;
    }
}

void writeFully(int fd, const unsigned char* p, size_t len) {
    while (len > 0) {
        ssize_t n = write(fd, p, len);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) fail("writing %s: %s", g_temporary, n < 0 ? strerror(errno) : "nothing written");
        p += n;
        len -= static_cast<size_t>(n);
    }
}

// The temporary beside the target: "<dir>/.<name>.<pid>".
int createTemporary(const std::string& target) {
    size_t slash = target.rfind('/');
    size_t at = slash == std::string::npos ? 0 : slash + 1;
    if (at == target.size()) fail("target %s names a directory", target.c_str());
    std::string temp = target.substr(0, at) + "." + target.substr(at) + "." + std::to_string(getpid());
    if (temp.size() >= sizeof g_temporary) fail("target path too long");
    // Named before it exists, so that the alarm handler never misses it; a
    // file of that name is a leftover of a process long gone.
    memcpy(g_temporary, temp.c_str(), temp.size() + 1);
    int fd = open(g_temporary, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, FILE_MODE);
    if (fd < 0) {
        int e = errno;
        g_temporary[0] = 0;
        fail("cannot create %s: %s", temp.c_str(), strerror(e));
    }
    if (fchmod(fd, FILE_MODE) != 0) fail("cannot set the mode of %s: %s", g_temporary, strerror(errno));
    return fd;
}

// Reads the head of the answer into piece; returns its length (what follows
// in piece up to fill is body).
size_t readHead(Connection& c, std::vector<unsigned char>& piece, size_t& fill) {
    size_t length;
    while ((length = headLength(reinterpret_cast<const char*>(piece.data()), fill)) == 0) {
        if (fill >= Limits::DOWNLOAD_HEAD_MOST) fail("answer head longer than %zu bytes", Limits::DOWNLOAD_HEAD_MOST);
        int n = c.read(piece.data() + fill, Limits::DOWNLOAD_HEAD_MOST - fill);
        if (n == 0) fail("connection closed before an answer");
        if (n < 0) fail("receiving the answer: %s", c.error().c_str());
        fill += static_cast<size_t>(n);
    }
    return length;
}

}  // namespace

int main(int argc, char** argv) {
    Options o = parseArguments(argc, argv);
    g_timeoutLength = static_cast<size_t>(
        snprintf(g_timeoutLine, sizeof g_timeoutLine, "download: not done within %u s\n", o.timeout));
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = onAlarm;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGALRM, &sa, nullptr);
    alarm(o.timeout);

    Url url;
    std::string reason;
    if (!parseUrl(o.url, url, reason)) fail("%s", reason.c_str());
    mbedtls_x509_crt ca;
    mbedtls_x509_crt_init(&ca);
    if (url.secure) loadAuthority(o.ca, &ca);
    int out = createTemporary(o.path);

    Connection c;
    c.dial(url);
    if (url.secure) c.secure(url, &ca);
    c.writeAll(requestFor(url));

    std::vector<unsigned char> piece(Limits::DOWNLOAD_WRITE_PIECE);
    size_t fill = 0;
    size_t headLen = readHead(c, piece, fill);
    AnswerHead answer;
    if (!parseAnswerHead(std::string(reinterpret_cast<const char*>(piece.data()), headLen), answer, reason))
        fail("%s", reason.c_str());
    if (answer.status >= 300 && answer.status < 400)
        fail("redirect refused (%s to %s)", answer.statusText.c_str(), answer.location.c_str());
    if (answer.status != 200) fail("server answered %s", answer.statusText.c_str());
    if (answer.contentLength < 0 || answer.chunked) fail("no Content-Length in the answer");
    const unsigned long long announced = static_cast<unsigned long long>(answer.contentLength);

    fill -= headLen;
    memmove(piece.data(), piece.data() + headLen, fill);
    unsigned long long total = fill;
    off_t written = 0;
    while (total < announced) {
        if (fill == piece.size()) {
            writeFully(out, piece.data(), fill);
            // Write-back starts now, piece by piece, so that the final sync
            // has only the tail left to wait for.
            sync_file_range(out, written, static_cast<off_t>(fill), SYNC_FILE_RANGE_WRITE);
            written += static_cast<off_t>(fill);
            fill = 0;
        }
        int n = c.read(piece.data() + fill, piece.size() - fill);
        if (n == 0) fail("connection closed after %llu of %llu bytes", total, announced);
        if (n < 0) fail("receiving after %llu of %llu bytes: %s", total, announced, c.error().c_str());
        fill += static_cast<size_t>(n);
        total += static_cast<unsigned long long>(n);
    }
    // Only the end of the connection may follow the announced bytes.
    unsigned char extra[1];
    if (total > announced || c.read(extra, sizeof extra) > 0) fail("more than the announced %llu bytes", announced);
    writeFully(out, piece.data(), fill);
    // The file may replace the running program: on disk before it has the name.
    if (fsync(out) != 0) fail("writing %s: %s", g_temporary, strerror(errno));
    if (close(out) != 0) fail("writing %s: %s", g_temporary, strerror(errno));
    alarm(0);  // what is on disk is whole: no time-out may remove it now
    if (rename(g_temporary, o.path.c_str()) != 0) fail("cannot rename to %s: %s", o.path.c_str(), strerror(errno));
    g_temporary[0] = 0;
    mbedtls_x509_crt_free(&ca);
    return 0;
}
