#include "anonFile.h"

#include <dirent.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "companion.h"
#include "dicom.h"
#include "files.h"
#include "keyValues.h"
#include "memory.h"
#include "sendFile.h"
#include "serviceLog.h"
#include "settings.h"
#include "stateFiles.h"
#include "text.h"

namespace {

// Older files pass on without pixel processing (seconds).
constexpr long PIXEL_AGE_MOST_S = 1801;
// A label the box writes into the files it makes itself.
const char* const OWN_MODEL = "VARNESK SUNDEL";
// Secondary captures are compared on this prefix only, so every class below
// it is refused.
const char* const SECONDARY_CAPTURE_PREFIX = "1.2.840.10008.5.1.4.1.1.7";
constexpr size_t SECONDARY_CAPTURE_PREFIX_LENGTH = 25;
const char* const STRUCTURED_REPORT_PREFIX = "1.2.840.10008.5.1.4.1.1.88";

const char* const ANON_TAGS[] = {"Manufacturer", "Modality", "SOPClassUID",
                                 "ManufacturerModelName", "NumberOfFrames", "0035,0010",
                                 nullptr};

const char* valueOr(const KeyValues<char>& table, const char* key, const char* fallback) {
    const char* v = table.get(key);
    return v && *v ? v : fallback;
}

// The names in dir that pass the test, all read before anything there changes.
template <class Test>
std::vector<std::string> namesIn(const std::string& dir, Test wanted) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (struct dirent* e = readdir(d))
            if (wanted(e->d_name)) names.push_back(e->d_name);
        closedir(d);
    }
    return names;
}

void removeLeftovers(const char* path);

// The attribute checks and the anonymiser. ANON_EXPORT when pixel
// processing may follow.
int anonymise(const char* path, int worker) {
    Memory mem;
    KeyValues<char> attrs;
    char dumpName[32];
    snprintf(dumpName, sizeof dumpName, "ATTRS.%d.txt", worker);
    if (getAttrMap(path, attrs, ANON_TAGS, dataDir, dumpName, &mem) != 0) {
        logToService("Sundel:  Anonymization Processing Loop, getAttrMap FAILED");
        char* dump = readTrimmed(dataDir, dumpName);
        if (*dump) logToService(dump);
        return ANON_DISCARD;
    }
    if (attrs.get("PrivateCreator")) {
        if (VERBOSE) printf("Sundel + PrivateCreator means this has already been processed; returning\n");
        return ANON_EXPORT;
    }
    char modality[64];
    snprintf(modality, sizeof modality, "%s", valueOr(attrs, "Modality", "OT"));
    if (atoi(valueOr(attrs, "NumberOfFrames", "1")) >= 2)
        snprintf(modality + strlen(modality), sizeof modality - strlen(modality), " MultiFrame");
    const char* sopClass = valueOr(attrs, "SOPClassUID", "");
    bool report = strncmp(sopClass, STRUCTURED_REPORT_PREFIX, strlen(STRUCTURED_REPORT_PREFIX)) == 0;
    const char* model = valueOr(attrs, "ManufacturerModelName", "NOTHING");
    if (strcasecmp(model, OWN_MODEL) == 0) return ANON_EXPORT;
    std::string label = std::string(model) + " " + modality;

    std::string crops;
    if (!report) {
        int status = 0;
        char* answer = SendFile::getCropInfo(dataDir, status, modality, model, VERBOSE, QUIET);
        crops = answer ? answer : "";
        if (VERBOSE) printf("Crops for %s|%s = %s\n", modality, model, crops.c_str());
        if (crops.empty() || strcasecmp(crops.c_str(), "EMPTY") == 0 ||
            strcasecmp(crops.c_str(), "ERROR") == 0) {
            logToService("Sundel FAIL:  No crop values for " + label);
            return ANON_DISCARD;
        }
        int count = 0;
        char** fields = Util::split(crops.c_str(), '|', &count, &mem);
        if (strncasecmp(model, "logiq", 5) != 0 && count >= 5 && fields[4][0] == '1' &&
            strncmp(sopClass, SECONDARY_CAPTURE_PREFIX, SECONDARY_CAPTURE_PREFIX_LENGTH) == 0) {
            logToService("Sundel FAIL:  SecondaryCaptureImageStorage cannot be anonymized");
            return ANON_DISCARD;
        }
    }

    std::string input = std::string(path) + ".T";
    if (mvFile(path, input.c_str()) != 0) {
        fprintf(stderr, "Could not set %s aside for anonymisation; it stays queued\n", path);
        return ANON_RETRY;
    }
    std::string command = shellArg(std::string(PROCESS_DIR) + "/scrubmill") + " --dict-path " +
                          shellArg(std::string(dataDir) + "/dicom.dic");
    if (nonZeroFile(dataDir, StateFile::STRICT_ANON) && !nonZeroFile(dataDir, StateFile::NON_STRICT))
        command += " --strict-anon";
    command += report ? " --sundel --anonymize" : " --sundel --anonymize --clip-percent " + shellArg(crops);
    command += " " + shellArg(input) + " " + shellArg(path);
    if (runCompanion(dataDir, command) == 0 && isRegularFile(path)) {
        unlink(input.c_str());
        if (VERBOSE) printf("Command succeeded %s\n", command.c_str());
        return ANON_EXPORT;
    }
    logToService("Sundel:  Anonymization Processing Loop, scrubmill command FAILED");
    unlink(input.c_str());
    removeLeftovers(path);
    if (VERBOSE) printf("Command failed %s\n", command.c_str());
    return ANON_DISCARD;
}

// A companion stopped half-way may leave its temporary ("<name>.scrub.<pid>",
// "<name>.im.<worker>") beside the file; the next pass would take it for a
// queued image.
void removeLeftovers(const char* path) {
    std::string dir = path, base = path;
    size_t slash = dir.rfind('/');
    dir = slash == std::string::npos ? "." : dir.substr(0, slash);
    base = slash == std::string::npos ? base : base.substr(slash + 1);
    auto temporary = [&](const std::string& name) {
        return name.compare(0, base.size() + 7, base + ".scrub.") == 0 ||
               name.compare(0, base.size() + 4, base + ".im.") == 0;
    };
    for (const std::string& name : namesIn(dir, temporary)) unlink((dir + "/" + name).c_str());
}

void flag(bool* passedUnprocessed) {
    if (passedUnprocessed && pixelProcessing) *passedUnprocessed = true;
}

}  // namespace

int processAnonFile(const char* path, int worker, long mtime, bool* passedUnprocessed) {
    if (!isRegularFile(path) || !isDicom(path, "")) return anonExport ? ANON_DISCARD : ANON_EXPORT;
    if (anonExport) {
        int result = anonymise(path, worker);
        if (result != ANON_EXPORT) return result;
    }
    if (!pixelProcessing && !pixelProcessingRetain) return ANON_EXPORT;

    time_t now = time(nullptr);
    long when = mtime ? mtime : static_cast<long>(getFileModTime(path, ""));
    if (now - when >= PIXEL_AGE_MOST_S) {
        char message[160];
        snprintf(message, sizeof message,
                 "Processing Sundel:  File date too far behind - passing unprocessed to Morva: %u > %u (diff=%u)",
                 static_cast<unsigned>(now), static_cast<unsigned>(when),
                 static_cast<unsigned>(now - when));
        if (passedUnprocessed) {
            logToService(message);
            flag(passedUnprocessed);
        }
        return ANON_EXPORT;
    }
    std::string command = shellArg(std::string(PROCESS_DIR) + "/imagemill");
    if (worker > 0) command += " --worker " + std::to_string(worker);
    if (VERBOSE) command += " --verbose";
    command += pixelProcessing ? " --sundel --repeat" : " --sundel2 --repeat";
    command += " --data-dir " + shellArg(dataDir) + " --process-dir " + shellArg(PROCESS_DIR) + " " +
               shellArg(path);
    if (runCompanion(dataDir, command) != 0) {
        logToService("Processing Sundel:  imagemill FAILED");
        removeLeftovers(path);
        flag(passedUnprocessed);
    }
    return ANON_EXPORT;
}

int recoverInputCopies(const char* dir) {
    auto inputCopy = [](const char* name) { return strlen(name) > 2 && endsWith(name, ".T"); };
    int recovered = 0;
    for (const std::string& name : namesIn(dir, inputCopy)) {
        std::string from = std::string(dir) + "/" + name;
        std::string to = from.substr(0, from.size() - 2);
        if (isRegularFile(from.c_str()) && rename(from.c_str(), to.c_str()) == 0) {
            fprintf(stderr, "Recovered the anonymiser's input %s\n", from.c_str());
            ++recovered;
        }
    }
    return recovered;
}
