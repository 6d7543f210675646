// status --prometheus: the running transfers and the limits in force in the
// Prometheus text exposition format, for node_exporter's textfile collector.
#include <cmath>
#include <cstdio>

#include "limits.h"
#include "status_view.h"

namespace cli {
namespace {

struct Sample {
    std::string labels;  // name="value",...
    double value;
};

// A label value: printable (control characters already escaped), then with
// the exposition format's own escapes.
std::string LabelValue(const std::string &text)
{
    std::string escaped;
    for (char c : Printable(text)) {
        if (c == '\\' || c == '"') {
            escaped += '\\';
        }
        escaped += c;
    }
    return escaped;
}

std::string Labels(std::initializer_list<std::pair<const char *, std::string>> labels)
{
    std::string text;
    for (const auto &[name, value] : labels) {
        text += (text.empty() ? "" : ",") + std::string(name) + "=\"" + LabelValue(value) + "\"";
    }
    return text;
}

std::string Value(double value)
{
    if (std::isinf(value)) {
        return "+Inf";
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.15g", value);
    return text;
}

void WriteFamily(std::ostream &out, const char *name, const char *help, const std::vector<Sample> &samples)
{
    out << "# HELP " << name << ' ' << help << "\n# TYPE " << name << " gauge\n";
    for (const Sample &sample : samples) {
        out << name << '{' << sample.labels << "} " << Value(sample.value) << '\n';
    }
}

// The limits in force now, per owner, protocol and direction, in bytes/s;
// unlimited directions are left out.  A limit that cannot be read is skipped
// with a warning, so that one damaged file does not silence every metric.
void CollectLimits(std::vector<Sample> *limits, std::vector<Sample> *enabled)
{
    for (int protocol : BuiltInProtocols()) {
        bool on = LimitingNow(ReadGlobal(protocol)).on;
        enabled->push_back({Labels({{"protocol", ProtocolName(protocol)}}), on ? 1.0 : 0.0});
        if (!on) {
            continue;
        }
        for (const Owner &owner : OwnersWithLimits(protocol)) {
            try {
                VESK_BANDWIDTH_LIMIT now = LimitNow(ReadLimit(owner, protocol));
                for (int direction : {VESK_BW_TRANSFER_UPLOAD, VESK_BW_TRANSFER_DOWNLOAD}) {
                    uint64_t kib = now.ullCurRate[direction];
                    if (now.iCurState == VESK_BW_STATE_ENABLED && kib != 0 && kib <= kMaxRateKiB) {
                        limits->push_back({Labels({{"owner_type", EnumName(VESK_BW_OWNER_TYPE_NAMES, owner.type)},
                                                   {"owner", owner.name},
                                                   {"protocol", ProtocolName(protocol)},
                                                   {"direction", DirectionName(direction)}}),
                                           static_cast<double>(kib * 1024)});
                    }
                }
            } catch (const Error &error) {
                Warn(error.what());
            }
        }
    }
}

}  // namespace

void WritePrometheus(std::ostream &out, const std::vector<Transfer> &transfers)
{
    std::vector<Sample> speed, allowed, progress, active;
    for (const Transfer &t : transfers) {
        const VESK_BANDWIDTH_STATUS &s = t.status;
        std::string labels = Labels({{"user", AccountName(VESK_BW_OWNER_USER, s.uid)},
                                     {"protocol", ProtocolName(s.protocol_type)},
                                     {"direction", DirectionName(s.transfer_type)},
                                     {"pid", std::to_string(s.pid)}});
        speed.push_back({labels, static_cast<double>(s.current_speed)});
        allowed.push_back({labels, s.expect_speed == 0 ? INFINITY : static_cast<double>(s.expect_speed)});
        progress.push_back({labels, s.progress / 10000.0});
        active.push_back({labels, s.active != 0 ? 1.0 : 0.0});
    }
    std::vector<Sample> limits, enabled;
    CollectLimits(&limits, &enabled);
    WriteFamily(out, "veskbandwidth_transfer_speed_bytes",
                "Speed a running transfer reached in its last chunk, in bytes per second.", speed);
    WriteFamily(out, "veskbandwidth_transfer_allowed_speed_bytes",
                "Speed the limits allow a running transfer now, in bytes per second.", allowed);
    WriteFamily(out, "veskbandwidth_transfer_progress_ratio",
                "Progress of a running transfer, 0 to 1 (0 while its size is unknown).", progress);
    WriteFamily(out, "veskbandwidth_transfer_active",
                "1 while a running transfer takes part in sharing, 0 once it was deactivated.", active);
    WriteFamily(out, "veskbandwidth_limiting_enabled", "1 while limiting is on for a protocol at this hour.", enabled);
    WriteFamily(out, "veskbandwidth_limit_bytes",
                "Limit in force now of a user or group on a protocol, in bytes per second.", limits);
}

}  // namespace cli
