// Client-receive: the answer to STUDIES, WORKLIST, QR, GetPreshare and DICOM
// is announced as "OK|<size>" on the command session and then pushed over a
// key session on the same connection.
//
// Text verbs push their queued item, else push/<verb>. "DICOM" pushes
// files/<name>, name being the last path part of the uri (the last "|" field,
// or the one before it when that is empty). With nothing to push the reply
// is replies/<verb> when set, else "error", and no key session follows.
#pragma once

class CommandChannel;
struct Request;
struct ServiceContext;

void pushToBox(const Request& request, CommandChannel& channel, ServiceContext& context);
