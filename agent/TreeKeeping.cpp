// Rhythm and message of the keeper.
#include "TreeKeeping.h"

#include <json/value.h>

#include <ctime>

#include "EventSink.h"
#include "SteadyTime.h"
#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

void DeliverAll(const std::vector<zel::CgroupDrift>& news) {
    for (const zel::CgroupDrift& drift : news) {
        Deliver(zel::kLimitDriftMessage, FormatDrift(drift, time(nullptr)));
    }
}

}  // namespace

std::string FormatDrift(const zel::CgroupDrift& drift, int64_t now) {
    Json::Value body(Json::objectValue);
    body["kind"] = zel::kCgroupDriftKinds[static_cast<size_t>(drift.kind)];
    body["detect_time"] = Json::Int64(now);
    body["controller"] = drift.controller;
    body["group"] = drift.group;
    body["component"] = drift.component;
    body["path"] = drift.path;
    body["pid"] = drift.pid;
    body["found"] = drift.found;
    body["wanted"] = drift.wanted;
    body["cause"] = drift.cause;
    body["repaired"] = drift.repaired;
    body["problem"] = drift.problem;
    body["contested"] = drift.contested;
    return body.toStyledString();
}

void TreeKeeping::Tick(int64_t second, const std::vector<zel::CgroupMember>& members) {
    if (second < m_nextLook) return;
    std::vector<zel::CgroupDrift> news;
    if (!zel::KeepCgroupTree(members, news)) return;
    m_nextLook = NextOfRhythm(second, m_everySeconds);
    DeliverAll(news);
}

void KeepLegacy() {
    std::vector<zel::CgroupDrift> news;
    zel::KeepLegacyLimit(news);
    DeliverAll(news);
}

}  // namespace agent
