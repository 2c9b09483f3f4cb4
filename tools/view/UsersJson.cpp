#include "UsersJson.h"

namespace qel {

nlohmann::ordered_json JsonOfUsers(const std::vector<ObjectUser>& users) {
    auto list = nlohmann::ordered_json::array();
    for (const ObjectUser& user : users) {
        list.push_back({{"pid", user.pid},
                        {"uid", user.uid},
                        {"command", user.command},
                        {"state", std::string(1, user.state)},
                        {"maps", user.maps},
                        {"nodes", user.Nodes()}});
    }
    return list;
}

std::string TextOfJson(const nlohmann::ordered_json& json) {
    constexpr int kOneLine = -1;
    return json.dump(kOneLine, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace qel
