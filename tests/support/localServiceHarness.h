// The local service for tests (see localServiceProcess.h), and the fixture
// that wires an agent data directory for box "box7" to a fresh one.
#pragma once
#include <gtest/gtest.h>

#include "bounds.h"
#include "localServiceProcess.h"
#include "memory.h"
#include "process.h"
#include "sendFile.h"
#include "util.h"

class ServiceTest : public ::testing::Test {
protected:
    explicit ServiceTest(const std::string& displayName = "Clinic One") {
        svc.prepareAgentDataDir(data.path(), "box7", displayName);
    }
    const char* dir() const { return data.path().c_str(); }
    std::string lastCommand() const {
        auto c = svc.commands();
        return c.empty() ? "" : c.back();
    }

    TempDir data;
    LocalService svc;
};

// Runs f with standard error captured; returns what it wrote there.
template <class F>
std::string stderrOf(F&& f) {
    testing::internal::CaptureStderr();
    f();
    return testing::internal::GetCapturedStderr();
}
