// One connection from a box, start to end: the start marker and "OK" (or the
// clear transport, recognised by the missing marker), the certificate
// session, one command line up to "|~~", logged, then answered by the verb
// handlers. The caller closes the socket afterwards.
#pragma once

struct ServiceContext;

void serveConnection(int fd, ServiceContext& context);
