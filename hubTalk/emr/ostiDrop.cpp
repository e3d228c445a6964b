#include "ostiDrop.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "bounds.h"
#include "files.h"
#include "process.h"
#include "serviceLog.h"
#include "settings.h"
#include "stateFiles.h"

extern char** environ;

namespace {

const char* const DROP_PASSWORD = "Wm47Brax$";
// Room for the whole batch in the pipe before the client starts: the
// agent never writes to a client that may already have gone.
const size_t BATCH_MOST = 4096;

// Host and account go to ssh as one argument: nothing in them may read as
// an option or as another user or port.
bool plainName(const std::string& s, const char* extra) {
    if (s.empty() || s[0] == '-') return false;
    for (char c : s)
        if (!isalnum(static_cast<unsigned char>(c)) && !strchr(extra, c)) return false;
    return true;
}

std::string quotedForSftp(const std::string& name) {
    std::string out = "\"";
    for (char c : name) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + "\"";
}

std::vector<std::string> childEnvironment() {
    std::vector<std::string> env;
    for (char** e = environ; e && *e; ++e)
        if (strncmp(*e, "SSHPASS=", 8) != 0) env.emplace_back(*e);
    env.push_back(std::string("SSHPASS=") + DROP_PASSWORD);
    return env;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> p;
    for (auto& t : texts) p.push_back(&t[0]);
    p.push_back(nullptr);
    return p;
}

// Reads what the client prints until it closes its output or the deadline.
// False when the deadline came first.
bool collectOutput(int fd, double deadline, std::string* output) {
    char buffer[4096];
    for (;;) {
        double left = deadline - monotonicSeconds();
        if (left <= 0) return false;
        pollfd p{fd, POLLIN, 0};
        int r = poll(&p, 1, static_cast<int>(left * 1000) + 1);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) continue;
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return true;
        size_t room = Limits::OSTI_OUTPUT_MOST - std::min(output->size(), Limits::OSTI_OUTPUT_MOST);
        output->append(buffer, std::min(static_cast<size_t>(n), room));
    }
}

std::string oneLine(std::string text) {
    for (char& c : text)
        if (c == '\r' || c == '\n') c = ' ';
    while (!text.empty() && text.back() == ' ') text.pop_back();
    return text;
}

}  // namespace

bool sftpPut(const std::vector<std::string>& files, std::string* details) {
    std::string none;
    std::string& why = details ? *details : none;
    std::string host = readTrimmed(dataDir, StateFile::OSTI_HOST);
    if (host.empty()) host = "127.0.0.1";
    std::string account = readTrimmed(dataDir, StateFile::OSTI_ACCOUNT);
    long port = atol(readTrimmed(dataDir, StateFile::OSTI_PORT));
    if (port <= 0 || port > 65535) port = Limits::OSTI_DROP_PORT;
    if (!plainName(host, ".-:_") || !plainName(account, ".-_")) {
        why = "host or account is not a plain name";
        return false;
    }
    std::vector<std::string> args = {"sshpass", "-e", "sftp", "-oBatchMode=no", "-b", "-", "-P", std::to_string(port),
                                     "-oStrictHostKeyChecking=accept-new",
                                     "-oUserKnownHostsFile=" + std::string(dataDir) + "/" +
                                         StateFile::OSTI_KNOWN_HOSTS.name,
                                     account + "@" + host};
    std::string command;
    for (auto& a : args) command += (command.empty() ? "" : " ") + a;
    std::string batch;
    for (auto& f : files) batch += "put " + quotedForSftp(f) + " .\n";
    batch += "bye\n";
    if (batch.size() > BATCH_MOST) {
        why = command + ": too many files for one transfer";
        return false;
    }

    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0) {
        why = command + ": " + strerror(errno);
        return false;
    }
    if (pipe2(out, O_CLOEXEC) != 0) {
        why = command + ": " + strerror(errno);
        close(in[0]);
        close(in[1]);
        return false;
    }
    fcntl(in[1], F_SETFL, O_NONBLOCK);
    bool batchWritten = write(in[1], batch.data(), batch.size()) == static_cast<ssize_t>(batch.size());
    close(in[1]);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, out[1], 2);
    posix_spawn_file_actions_addchdir_np(&actions, HL7_dir);
    posix_spawnattr_t attr;
    initChildAttributes(&attr);
    std::vector<std::string> env = childEnvironment();
    std::vector<char*> argv = pointers(args), envp = pointers(env);
    pid_t pid = -1;
    int rc = batchWritten ? posix_spawnp(&pid, "sshpass", &actions, &attr, argv.data(), envp.data()) : EMSGSIZE;
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    close(in[0]);
    close(out[1]);
    if (rc != 0) {
        close(out[0]);
        why = command + ": not started: " + strerror(rc);
        return false;
    }

    double deadline = monotonicSeconds() + Limits::OSTI_DROP_TIMEOUT_S;
    std::string output;
    bool ended = collectOutput(out[0], deadline, &output);
    close(out[0]);
    int status = 0;
    double left = deadline - monotonicSeconds();
    if (!ended || waitChildFor(pid, left > 0 ? left : 0, &status) != ChildWait::Ended) {
        // sshpass hands the signal on to the client it runs on its terminal.
        kill(-pid, SIGTERM);
        if (waitChildFor(pid, 2, &status) != ChildWait::Ended) {
            kill(-pid, SIGKILL);
            while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
            }
        }
        why = command + ": stopped after " + std::to_string(Limits::OSTI_DROP_TIMEOUT_S) + " s: " + oneLine(output);
        return false;
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
    why = command + ": " +
          (WIFEXITED(status) ? "exit status " + std::to_string(WEXITSTATUS(status))
                             : "signal " + std::to_string(WIFSIGNALED(status) ? WTERMSIG(status) : 0)) +
          ": " + oneLine(output);
    return false;
}

void ostiDrop(const std::string& messageFile, const std::string& studyUid) {
    if (readTrimmed(dataDir, StateFile::OSTI_ACCOUNT)[0] == 0) {
        logToServiceLater("OSTI Sundel:  no SFTP account set (" + std::string(StateFile::OSTI_ACCOUNT.name) +
                     "); files left in " + HL7_dir);
        return;
    }
    std::string details;
    if (!sftpPut({messageFile}, &details))
        logToServiceLater("OSTI Sundel:  sftp command failed when attempting to send HL7 message: " + details);

    std::vector<std::string> attachments;
    std::string prefix = studyUid + ".";
    if (DIR* d = opendir(HL7_dir)) {
        while (dirent* e = readdir(d)) {
            std::string name = e->d_name;
            struct stat st;
            if (name.compare(0, prefix.size(), prefix) == 0 &&
                lstat((std::string(HL7_dir) + "/" + name).c_str(), &st) == 0 && S_ISREG(st.st_mode))
                attachments.push_back(name);
        }
        closedir(d);
    }
    if (!attachments.empty() && !sftpPut(attachments, &details))
        logToServiceLater("OSTI Sundel:  sftp command failed for attachments: " + details);
}
