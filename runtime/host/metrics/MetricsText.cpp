// Builds the Prometheus text exposition format from samples.
#include "metrics/MetricsText.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <set>

namespace zelhost {
namespace {

bool IsName(const std::string& name, bool colons) {
    if (name.empty() || (name[0] >= '0' && name[0] <= '9')) return false;
    for (char c : name) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
                        (colons && c == ':');
        if (!ok) return false;
    }
    return true;
}

std::string Escape(const std::string& text, bool quotes) {
    std::string out;
    for (char c : text) {
        if (c == '\\')
            out += "\\\\";
        else if (c == '\n')
            out += "\\n";
        else if (c == '"' && quotes)
            out += "\\\"";
        else
            out += c;
    }
    return out;
}

std::string Number(double value) {
    if (std::isnan(value)) return "NaN";
    if (std::isinf(value)) return value > 0 ? "+Inf" : "-Inf";
    char text[64];
    const bool whole = value == std::floor(value) && std::fabs(value) < 1e15;
    std::snprintf(text, sizeof(text), whole ? "%.0f" : "%.9g", value);
    return text;
}

std::string LabelText(const Metric& metric, const MetricLabels& common) {
    MetricLabels labels = metric.labels;
    for (const auto& label : common) {
        const bool given =
            std::any_of(labels.begin(), labels.end(), [&](const auto& l) { return l.first == label.first; });
        if (!given && !label.second.empty()) labels.push_back(label);
    }
    std::sort(labels.begin(), labels.end());
    std::string out;
    std::set<std::string> names;
    for (const auto& label : labels) {
        if (!IsLabelName(label.first) || !names.insert(label.first).second) continue;
        out += (out.empty() ? "{" : ",") + label.first + "=\"" + Escape(label.second, true) + "\"";
    }
    return out.empty() ? out : out + "}";
}

struct Family {
    const Metric* first = nullptr;
    std::vector<std::string> samples;
    std::set<std::string> labels;
};

}  // namespace

bool IsMetricName(const std::string& name) {
    return IsName(name, true);
}
bool IsLabelName(const std::string& name) {
    return IsName(name, false) && name.compare(0, 2, "__") != 0;
}

std::string FormatMetrics(const std::vector<Metric>& metrics, const MetricLabels& common) {
    std::vector<std::string> order;
    std::map<std::string, Family> families;
    for (const Metric& metric : metrics) {
        if (!IsMetricName(metric.name)) continue;
        Family& family = families[metric.name];
        if (family.first == nullptr) {
            family.first = &metric;
            order.push_back(metric.name);
        }
        if (family.first->type != metric.type) continue;
        const std::string labels = LabelText(metric, common);
        if (!family.labels.insert(labels).second) continue;
        family.samples.push_back(metric.name + labels + " " + Number(metric.value) + "\n");
    }
    std::string out;
    for (const std::string& name : order) {
        const Family& family = families[name];
        out += "# HELP " + name + " " + Escape(family.first->help, false) + "\n";
        out += "# TYPE " + name + (family.first->type == MetricType::kCounter ? " counter\n" : " gauge\n");
        for (const std::string& sample : family.samples) out += sample;
    }
    return out;
}

}  // namespace zelhost
