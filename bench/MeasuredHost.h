// The host's services in a program that measures one operation: without what would work beside it.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/host/HostServices.h"
#include "platform/zel/LogControl.h"

/// Lifetime: that of the process's services; Stop ends them.
class MeasuredHost {
public:
    /// The log goes to the files of a process of that name in `directory`.
    MeasuredHost(const std::string& name, const std::string& directory) {
        setenv("ZEL_APP_DIR", directory.c_str(), 1);
        zel::LogOptions log;
        log.processName = name;
        zel::ConfigureLog(log);
        m_options.processName = name;
        m_options.statisticsDbPath = "-";
        m_options.delivery.enabled = zelhost::Switch::kOff;
        m_options.metrics.enabled = zelhost::Switch::kOff;
        m_options.sampling.selfKill = false;
    }

    /// What is to be different; before Start.
    zelhost::HostOptions& Options() { return m_options; }

    /// Returns: false after it has said why.
    bool Start() {
        std::string error;
        const bool started = m_services.Start(m_options, error);
        if (!started) std::fprintf(stderr, "%s\n", error.c_str());
        return started;
    }
    void Stop() { m_services.Stop(); }
    zelhost::CHostServices& Services() { return m_services; }

private:
    zelhost::HostOptions m_options;
    zelhost::CHostServices m_services;
};
