// Shared fixture of the transport's end-to-end tests: a simulated testbed,
// a per-test trace file (ZTTRACE_PATH, set before the first library call)
// and helpers around the transport's internal API.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "lnx/transport/usbtr.h"
#include "simtest.h"

namespace transport_e2e {

class TransportE2E : public sim::SimTest {
protected:
    void SetUp() override
    {
        sim::SimTest::SetUp();
        if (HasFatalFailure())
            return;
        // The process-wide state is set up once: each case needs its own process.
        if (gGlobalInitialised != 0)
            GTEST_SKIP() << "run each case in its own process (ctest does)";
        const char *tmp = getenv("TMPDIR");
        traceDir_ = std::string(tmp ? tmp : "/tmp") + "/transport-traces-XXXXXX";
        ASSERT_NE(mkdtemp(traceDir_.data()), nullptr);
        setenv("ZTTRACE_PATH", traceDir_.c_str(), 1);
    }

    void TearDown() override
    {
        if (lib_ != nullptr) {
            EXPECT_EQ(USBTRDone(lib_), USBTR_STATUS_SUCCESS);
        }
        lib_ = nullptr;
        sim::SimTest::TearDown();
        if (!traceDir_.empty()) {
            unlink((traceDir_ + "/traces.log").c_str());
            rmdir(traceDir_.c_str());
        }
    }

    void *lib()
    {
        if (lib_ == nullptr) {
            EXPECT_EQ(USBTRInit(&lib_, 0), USBTR_STATUS_SUCCESS);
        }
        return lib_;
    }

    std::string traces() const
    {
        std::ifstream f(traceDir_ + "/traces.log");
        std::stringstream ss;
        ss << f.rdbuf();
        return ss.str();
    }

    size_t traceCount(const std::string &text) const
    {
        std::string all = traces();
        size_t n = 0;
        for (size_t pos = all.find(text); pos != std::string::npos; pos = all.find(text, pos + 1))
            n++;
        return n;
    }

    std::vector<USBTR_DEVICE_DESCRIPTION> enumerate(int32_t *pStatus,
                                                    const USBTR_DEVICE_DESCRIPTION *pRequest = nullptr)
    {
        USBTR_DEVICE_LIST *list = reinterpret_cast<USBTR_DEVICE_LIST *>(0x1);
        *pStatus = USBTREnumerate(lib(), pRequest, &list);
        std::vector<USBTR_DEVICE_DESCRIPTION> out;
        if (*pStatus != USBTR_STATUS_SUCCESS) {
            EXPECT_EQ(list, reinterpret_cast<USBTR_DEVICE_LIST *>(0x1)) << "list written on failure";
            return out;
        }
        out.assign(list->aDevices, list->aDevices + list->nCount);
        free(list);
        return out;
    }

    static USBTR_DEVICE_DESCRIPTION requestByName(const std::string &name)
    {
        USBTR_DEVICE_DESCRIPTION r = {};
        snprintf(r.szDeviceName, sizeof(r.szDeviceName), "%s", name.c_str());
        return r;
    }

    // Descriptors of device nodes and sysfs files: what the library opens.
    // (umockdev keeps sockets of its own that close asynchronously.)
    static std::vector<std::string> deviceFds()
    {
        std::vector<std::string> out;
        for (const std::string &link : sim::openFds())
            if (link.find("/bus/usb/") != std::string::npos || link.find("/sys/") != std::string::npos)
                out.push_back(link);
        return out;
    }

    static std::string allFds()
    {
        std::string s;
        for (const std::string &link : sim::openFds())
            s += link + "\n";
        return s;
    }

    std::string traceDir_;
    void *lib_ = nullptr;
};

} // namespace transport_e2e
