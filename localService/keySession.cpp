#include "keySession.h"

#include "channel.h"
#include "faults.h"
#include "presharedKey.h"
#include "serviceContext.h"
#include "tlsServer.h"

std::unique_ptr<ServerTlsSession> openKeySession(CommandChannel& channel, ServiceContext& context,
                                                 const std::string& okText, const std::string& id,
                                                 const std::string& displayName) {
    if (!channel.reply(okText) || !channel.handOver(faultOn(context.config, Fault::StrayEnd)))
        return nullptr;
    std::string key = faultOn(context.config, Fault::WrongKey) ? wrongPresharedKey(id, displayName)
                                                              : presharedKey(id, displayName);
    auto session = std::make_unique<ServerTlsSession>(channel.fd(), context.random);
    if (!session->handshakeWithKey(key)) return nullptr;
    return session;
}
