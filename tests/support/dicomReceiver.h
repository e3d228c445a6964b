// A real DICOM receiver for tests and benchmarks: the system's storescp on a
// free port, TCP_NODELAY on, writing each file straight to a directory of
// its own (+B). It listens on every address; only loopback is ever dialled.
#pragma once
#include <memory>
#include <string>
#include <vector>

#include "testUtil.h"

class DicomReceiver {
public:
    // refuse: every association is rejected.
    explicit DicomReceiver(bool refuse = false);
    int port() const { return m_port; }
    const std::string& dir() const { return m_out.path(); }
    // Paths of the files received so far, sorted.
    std::vector<std::string> received() const;

private:
    TempDir m_out;
    TempDir m_logs;
    int m_port = 0;
    std::unique_ptr<ChildProcess> m_process;
};

// The bytes of a DICOM file after its file-meta group: what a receiver must
// store unchanged ("" when the file has no readable meta group).
std::string datasetBytes(const std::string& path);
