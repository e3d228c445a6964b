#include "routeCommand.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bounds.h"
#include "files.h"
#include "selfUpdate.h"
#include "serviceLog.h"
#include "settings.h"
#include "stateFiles.h"
#include "text.h"
#include "util.h"

namespace {

bool startsNoCase(const std::string& text, size_t at, const std::string& word) {
    return text.size() - at >= word.size() && strncasecmp(text.c_str() + at, word.c_str(), word.size()) == 0;
}

size_t findNoCase(const std::string& text, const std::string& word) {
    for (size_t at = 0; at + word.size() <= text.size(); ++at)
        if (startsNoCase(text, at, word)) return at;
    return std::string::npos;
}

enum class Quoting { Bare, Double, Single };

std::string quotedFor(Quoting where, const std::string& value) {
    std::string out;
    switch (where) {
    case Quoting::Bare:
        return shellArg(value);
    case Quoting::Double:
        for (char c : value) {
            if (c == '\\' || c == '"' || c == '$' || c == '`') out += '\\';
            out += c;
        }
        return out;
    case Quoting::Single:
        for (char c : value) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
        return out;
    }
    return out;
}

}  // namespace

Destination findDestination(const std::string& table, const std::string& aeTitle,
                            const std::string& defaultHost) {
    Destination to{aeTitle, defaultHost};
    if (table.empty()) return to;
    std::string key = aeTitle + "|";
    if (table.find(key) == std::string::npos) {
        size_t at = findNoCase(table, key);
        if (at != std::string::npos) to.aeTitle = table.substr(at, aeTitle.size());
    }
    size_t at = table.find(to.aeTitle);
    if (at == std::string::npos) return to;
    size_t end = table.find('\n', at);
    std::string line = table.substr(at, end == std::string::npos ? std::string::npos : end - at);
    size_t first = line.find('|');
    size_t second = first == std::string::npos ? first : line.find('|', first + 1);
    if (second == std::string::npos) return to;
    size_t third = line.find('|', second + 1);
    std::string host = line.substr(second + 1, third == std::string::npos ? std::string::npos : third - second - 1);
    while (!host.empty() && isspace(static_cast<unsigned char>(host.back()))) host.pop_back();
    to.host = host;
    return to;
}

bool isPlainHost(const std::string& host) {
    if (host.empty() || host[0] == '-' || host.size() > 255) return false;
    for (unsigned char c : host)
        if (!isalnum(c) && !strchr(".-:_", c)) return false;
    return true;
}

std::string fillTemplate(const std::string& command, const std::string& file,
                         const std::string& dataDir, const std::string& exportDir) {
    static const struct {
        const char* name;
        int value;
    } placeholders[] = {{"{{FILENAME}}", 0}, {"{{DATADIR}}", 1}, {"{{EXPORTDIR}}", 2}};
    const std::string* values[] = {&file, &dataDir, &exportDir};
    std::string out;
    Quoting where = Quoting::Bare;
    for (size_t i = 0; i < command.size();) {
        bool replaced = false;
        for (const auto& p : placeholders) {
            size_t n = strlen(p.name);
            if (command.compare(i, n, p.name) == 0) {
                out += quotedFor(where, *values[p.value]);
                i += n;
                replaced = true;
                break;
            }
        }
        if (replaced) continue;
        char c = command[i];
        out += c;
        ++i;
        if (c == '\\' && where != Quoting::Single && i < command.size()) {
            out += command[i++];
        } else if (c == '\'' && where != Quoting::Double) {
            where = where == Quoting::Single ? Quoting::Bare : Quoting::Single;
        } else if (c == '"' && where != Quoting::Single) {
            where = where == Quoting::Double ? Quoting::Bare : Quoting::Double;
        }
    }
    return out;
}

std::string accountFileName(const std::string& account) {
    std::string name = account.substr(0, Limits::ACCOUNT_NAME_MOST);
    for (size_t i = 0; i < name.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(name[i]);
        if (c == '/' || c < 0x20 || c == 0x7f || (i == 0 && c == '.')) name[i] = '_';
    }
    return name;
}

std::string accountUrlPart(const std::string& account) {
    char* encoded = encodeUrl(account.c_str(), false);
    std::string out = encoded ? encoded : account;
    ::free(encoded);
    return out;
}

std::string ensureMeasurementDefinitions() {
    std::string account = trimmed(Util::decipher(readTrimmed(dataDir, StateFile::ACCOUNT)));
    std::string name = "SRDef." + accountFileName(account) + ".tsv";
    std::string path = std::string(dataDir) + delim + name;
    if (nonZeroFile(dataDir, name.c_str())) return path;
    std::string url = downloadUrl(dataDir, ("/varnesk_sundel/SR/" + accountUrlPart(account) + ".tsv").c_str());
    std::string tool = std::string(PROCESS_DIR) + delim + "download";
    if (runDownload(tool, url, path) != 0) {
        std::string message = "Sundel:  Downloading Measurement file FAILED:  " + downloadCommand(tool, url, path) + "\n";
        if (VERBOSE) printf("Sundel:  Command Failed (%s)\n", message.c_str());
        logToService(message);
    } else if (VERBOSE) {
        printf("Measurement file (%s) downloaded successfully\n", path.c_str());
    }
    return path;
}

DeliveryCommand deliveryCommand(const std::string& file, const Destination& to) {
    DeliveryCommand d;
    std::string process = PROCESS_DIR;
    std::string operatorCommand = readTrimmed(dataDir, StateFile::DELIVERY_COMMAND);
    if (!operatorCommand.empty()) {
        d.command = fillTemplate(operatorCommand, file, dataDir, viewpointDir);
    } else if (EMR_PDF) {
        d.command = shellArg(process + "/reportcast") + " -v --sundel --data-dir " + shellArg(dataDir) +
                    " --process-dir " + shellArg(process) + " --cache-dir " + shellArg(HL7_cache) + " " +
                    shellArg(file) + " " + shellArg(HL7_dir);
    } else if (EMR_SR) {
        std::string definitions = ensureMeasurementDefinitions();
        d.command = shellArg(process + "/measurecast") + " --sundel --type " + shellArg(InterfaceName) +
                    " --data-dir " + shellArg(dataDir) + " --process-dir " + shellArg(process) + " " +
                    shellArg(definitions) + " " + shellArg(file) + " " + shellArg(HL7_dir);
    } else {
        if (!isPlainHost(to.host)) {
            d.problem = "destination host is not a plain name or address: " + messageSafe(to.host.substr(0, 64));
            return d;
        }
        d.command = shellArg(process + "/dcmsend" + SUFFIX) + " -nuc --dict-path " +
                    shellArg(std::string(dataDir) + "/dicom.dic") + " --aetitle morva --call " +
                    shellArg(to.aeTitle) + " " + shellArg(to.host) + " " + std::to_string(ER_port) + " " + shellArg(file);
    }
    if (d.command.size() > Limits::ROUTE_COMMAND_MOST) {
        d.problem = "delivery command longer than " + std::to_string(Limits::ROUTE_COMMAND_MOST) + " bytes";
        d.command.clear();
    }
    return d;
}

std::string messageSafe(const std::string& text) {
    std::string out = text;
    for (char& c : out)
        if (c == '|' || static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '_';
    return out;
}
