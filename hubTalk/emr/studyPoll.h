// The EMR thread: every 120 s (link-file mode) or 240 s it asks the service
// for the studies uploaded since "timeSince.txt" (5 or 7 days back when it
// is missing), hands each new one to the writer of the EMR kind
// (hl7Writers.h), moves "timeSince.txt" forward, prunes old files, and then
// processes the inbound HL7 directory (hl7Input.h).
#pragma once
#include <functional>
#include <string>

#include "studyRecord.h"

// Thread body (argument ignored); never returns.
void* emr_proc(void* arg);
// One pass. Returns 0.
int emr_loop_proc();

// The study loop over a poll reply followed by the pruning: every study
// uploaded after `since` that has a report link with "/permalinks/" and a
// patient last name goes to writeStudy(kind, ...). The pass's files are
// brought to disk together before "timeSince.txt" moves past them; a pass
// cut short writes its studies again next time rather than losing them.
void doHl7Output(int kind, double since, const char* reply);

// The loop alone: each new study's record to `handle`; then, when `settle`
// (if given) says the handled studies are safe, "timeSince.txt" advanced
// once to the newest of them. False when the reply does not parse.
bool forEachNewStudy(double since, const char* reply, const std::function<void(const StudyRecord&)>& handle,
                     const std::function<bool()>& settle = nullptr);

// The referring physician's parts from a composite such as "DR. SMITH^JOHN^MD".
void parsePhysicianComposite(const std::string& composite, StudyRecord& study);
