#include "keySession.h"

#include "channel.h"
#include "faults.h"
#include "presharedKey.h"
#include "serviceContext.h"
#include "socketIo.h"
#include "tlsServer.h"

namespace {
// Longer than any wait of the box, shorter than a test.
const int KEY_ALERT_HOLD_MS = 90000;
}  // namespace

std::unique_ptr<ServerTlsSession> openKeySession(CommandChannel& channel, ServiceContext& context,
                                                 const std::string& okText, const std::string& id,
                                                 const std::string& displayName) {
    if (!channel.reply(okText) || !channel.handOver(faultOn(context.config, Fault::StrayEnd)))
        return nullptr;
    if (faultOn(context.config, Fault::KeyAlert)) {
        // A fatal handshake_failure alert in the clear, then silence until the box hangs up.
        const unsigned char alert[] = {21, 3, 3, 0, 2, 2, 40};
        LocalIo::sendAll(channel.fd(), alert, sizeof alert);
        LocalIo::drainUntilClosed(channel.fd(), KEY_ALERT_HOLD_MS);
        return nullptr;
    }
    std::string key = faultOn(context.config, Fault::WrongKey) ? wrongPresharedKey(id, displayName)
                                                              : presharedKey(id, displayName);
    auto session = std::make_unique<ServerTlsSession>(channel.fd(), context.random);
    if (!session->handshakeWithKey(key)) return nullptr;
    return session;
}
