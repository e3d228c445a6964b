// Where a routed item goes and the command line that takes it there.
//
// Every value that reaches the shell is quoted: the AE title and the host
// (from the service and from "dest.QR.txt"), the paths, the account. The
// operator's template in "DICOM_COMMAND.txt" stays as written; only the
// values put in for its placeholders are quoted, to suit where each stands
// (bare, inside double quotes, inside single quotes).
#pragma once
#include <string>

struct Destination {
    std::string aeTitle;
    std::string host;
};

// The item's AE title and ER_ip, adjusted by the destination table: when
// "<title>|" is not in it with the same case but is ignoring case, the title
// takes the table's spelling; the line holding the first occurrence of the
// title, from there on, gives the host in its third "|" field (right-trimmed)
// when it has three.
Destination findDestination(const std::string& table, const std::string& aeTitle,
                            const std::string& defaultHost);

// A host name or address the sender may be given: letters, digits, ".",
// "-", ":", "_", not starting with "-" (that would read as an option).
bool isPlainHost(const std::string& host);

// The template with every "{{FILENAME}}", "{{DATADIR}}" and "{{EXPORTDIR}}"
// replaced by its value, quoted for the place it stands.
std::string fillTemplate(const std::string& command, const std::string& file,
                         const std::string& dataDir, const std::string& exportDir);

// The account as it may stand in a file name: "/", control bytes and a
// leading "." become "_"; at most Limits::ACCOUNT_NAME_MOST bytes.
std::string accountFileName(const std::string& account);
// The account percent-encoded for a URL path.
std::string accountUrlPart(const std::string& account);

// The command that delivers file, by the first rule that applies: the
// operator's template, the PDF converter, the measurement converter (its
// definitions fetched first), the DICOM sender. An empty command comes with
// the reason it cannot be run: longer than Limits::ROUTE_COMMAND_MOST (cut,
// it would run something else), or a host that is not plain.
struct DeliveryCommand {
    std::string command;
    std::string problem;
};
DeliveryCommand deliveryCommand(const std::string& file, const Destination& to);

// Makes sure the measurement definitions of the account exist: downloads
// them when the file is missing or empty. Returns their path.
std::string ensureMeasurementDefinitions();

// A value as it may stand inside a message to the service: "|" and control
// bytes become "_".
std::string messageSafe(const std::string& text);
