// Replies to the commands answered on the command session itself. A reply
// comes from the configuration (queued, then standing, under the keys below)
// or, when none is set, from the service's default:
//
//   ips / ipsDNS    the address listened on (ipsDNS falls back to "ips" replies)
//   init, heartbeat "display_name=<name>" for a known box, else nothing
//   echo            the echoed fields
//   failure, LOG, dDicom   "OK"
//   MOVE "0", qDicomCt the number of queued "qDicom" items, qDicom "0|NONE",
//   qDicom1 "0|title|NONE", REPEAT "no", CROP "error"
//   API/...         keys "API.<request type>" then "API"; default "success"
//   anything else   "error"
#pragma once
#include <string>
#include <vector>

struct Request;
struct ServiceContext;

// The configuration keys a request's reply is looked up under, narrowest first.
std::vector<std::string> replyKeys(const Request& request);
std::string replyFor(const Request& request, ServiceContext& context);

// Verbs whose answer is data pushed over a key session.
bool isPushVerb(const std::string& verb);
