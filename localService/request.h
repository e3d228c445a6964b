// One command line as the box sends it, taken apart: who sent it, which verb,
// and whether it is an upload header.
//
//   service commands   "ips[/<box>]", "ipsDNS[/<box>]", "init|<query>",
//                      "heartbeat|<query>", "echo|a|b|<box>|1", "failure|<query>"
//   API requests       "API/<box>/<display name>/1|<request type>|<json>"
//   identified         "<box>|<VERB>|<key>|<value>..."
//   upload header      "<box>[/<sub>]|<name>|<size>|<field A>|<field B>|~~|1"
#pragma once
#include <string>
#include <vector>

struct Request {
    enum class Kind { Service, Api, Identified, Upload, Unknown };

    Kind kind = Kind::Unknown;
    std::string line;                 // as received, without the final "|~~"
    std::vector<std::string> fields;  // the line split at every "|"
    std::string verb;                 // "ips", "heartbeat", "STUDIES", "API", ...
    std::string boxId;                // the box, when the line names it
    std::string apiType;              // API requests: the request type

    // Upload headers: the whole id field ("<box>/<sub>"), name and size. A
    // name field holding an information text ("{ \"sop_instance_id\": ...")
    // names the file "<sop_instance_id><file_suffix>".
    std::string uploadId;
    std::string uploadName;
    unsigned long long uploadSize = 0;
    bool uploadSizeValid = false;

    // The value of key in a "k=v&k=v" query, "" when absent.
    static std::string queryValue(const std::string& query, const std::string& key);
};

// The line must already be stripped of its final "|~~".
Request parseRequest(const std::string& line);

// Where a command line ends: the received text ends in "|~~". Returns the
// line without it, or false while more is to come.
bool completeCommand(const std::string& received, std::string& line);
