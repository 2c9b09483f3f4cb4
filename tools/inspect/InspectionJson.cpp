#include <gsl/util>
#include <nlohmann/json.hpp>

#include "RingInspection.h"
#include "UsersJson.h"

namespace qel {
namespace {

using Json = nlohmann::ordered_json;

Json JsonOf(const RecordView& record) {
    Json json{{"offset", record.offset},
              {"length", std::uint64_t{record.header.length}},
              {"filler", record.header.ignoreData},
              {"pts", std::int64_t{record.header.pts}},
              {"key", record.header.key},
              {"seconds", std::uint32_t{record.header.timestampSec}},
              {"microseconds", std::uint32_t{record.header.timestampUsec}}};
    if (!record.payload.empty()) {
        json["payload"] = record.payload;
    }
    return json;
}

Json JsonOf(const RingStretch& stretch) {
    Json json{{"node", stretch.node},           {"state", stretch.isHeld ? "held" : "waiting"},
              {"offset", stretch.offset},       {"bytes", stretch.bytes},
              {"records", stretch.walk.count},  {"fillers", stretch.walk.fillers},
              {"strayBytes", stretch.walk.rest}};
    for (const RecordView& record : stretch.walk.records) {
        json["list"].push_back(JsonOf(record));
    }
    return json;
}

Json JsonOf(const Invariant& invariant) {
    Json json{{"text", invariant.text}};
    json["holds"] = invariant.holds ? Json(*invariant.holds) : Json();
    if (!invariant.detail.empty()) {
        json["detail"] = invariant.detail;
    }
    return json;
}

Json JsonOf(const RingFields& fields) {
    return {{"avail", fields.avail},
            {"wIdx", fields.wIdx},
            {"rIdx", fields.rIdx},
            {"numPackets", fields.numPackets},
            {"initialised", fields.initialised},
            {"maxPackets", fields.maxPackets},
            {"halfSize", fields.halfSize},
            {"quarterSize", fields.quarterSize},
            {"reservedAreZero", fields.reservedAreZero}};
}

}  // namespace

std::string JsonOf(const std::string& name, const RingInspection& ring) {
    Json json{{"ring", name},
              {"path", RingPath(name)},
              {"length", ring.status.st_size},
              {"size", ring.size},
              {"uid", ring.status.st_uid},
              {"gid", ring.status.st_gid},
              {"mode", ring.status.st_mode},
              {"still", ring.isStill},
              {"fresh", ring.isFresh},
              {"fields", JsonOf(ring.fields)},
              {"sink", ring.sink}};
    if (ring.flow) {
        json["free"] = ring.flow->free;
        json["largestNow"] = ring.largestNow;
    }
    json["stretches"] = Json::array();
    for (const RingStretch& stretch : ring.stretches) {
        json["stretches"].push_back(JsonOf(stretch));
    }
    json["invariants"] = Json::array();
    for (const Invariant& invariant : ring.invariants) {
        json["invariants"].push_back(JsonOf(invariant));
    }
    json["users"] = JsonOfUsers(ring.users);
    json["hiddenProcesses"] = ring.hiddenProcesses;
    return TextOfJson(json);
}

}  // namespace qel
