// What the bundled local service does that the agent-side tests cannot show:
// its raw command log, the order of queued replies, where uploads land, and
// how the process binds and ends.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "localServiceHarness.h"
#include "sendFile.h"
#include "testUtil.h"

namespace {

using ServiceSide = ServiceTest;

TEST_F(ServiceSide, QueuedRepliesComeFirstAndEveryLineIsLoggedEscaped) {
    svc.setReply("qDicom", "2|title|standing");
    svc.queueReply("qDicom", "1|title|first");
    svc.queueReply("qDicom", "1|title|second");
    int status = 1;
    for (const char* expected : {"1|title|first", "1|title|second", "2|title|standing"})
        EXPECT_EQ(std::string(SendFile::sendQdicom(dir(), status, "PACS", false, false)), expected);
    EXPECT_EQ(std::string(SendFile::sendACommand("box7|NOSUCHVERB", "k|v", status, dir(), false, false)),
              "error");
    SendFile::sendLogMsg(dir(), status, "two\nlines\r and \\ a backslash", false, false);

    const std::string q = "box7|qDicom|destination|PACS\n";
    EXPECT_EQ(slurp(svc.configDir() + "/commands.log"),
              q + q + q + "box7|NOSUCHVERB|k|v\nbox7|LOG|msg|two\\nlines\\r and \\\\ a backslash\n");
    EXPECT_EQ(lastCommand(), "box7|LOG|msg|two\nlines\r and \\ a backslash");
}

TEST_F(ServiceSide, UploadNamesStayInsideTheStore) {
    TempDir files;
    std::string body(70000, 'x');
    body[0] = 'A';
    spit(files.file("x.dcm"), body);
    ASSERT_EQ(SendFile::sendWFile(files.file("x.dcm").c_str(), "../escape.dcm", nullptr, "fa", "fb",
                                  dir(), true, false),
              0);
    EXPECT_EQ(svc.storedHeader(".._escape.dcm"), "box7|../escape.dcm|70000|fa|fb|~~|1");
    EXPECT_EQ(slurp(svc.storedFile(".._escape.dcm")), body);
    EXPECT_FALSE(exists(svc.configDir() + "/escape.dcm"));
}

TEST(LocalServiceProcess, RefusesNonLoopbackAddressesAndStopsCleanlyOnSigterm) {
    TempDir config;
    RunResult r = runProgram({LOCAL_SERVICE_BIN, "--config", config.path(), "--address", "0.0.0.0",
                              "--port", "0"});
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.err.find("loopback"), std::string::npos) << r.err;

    LocalService service;
    // A connection still open at the stop.
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons((uint16_t)service.port());
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    EXPECT_EQ(service.stop(), 0);
    close(fd);
}

}  // namespace
