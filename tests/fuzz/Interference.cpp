#include "Interference.h"

#include <cstring>

namespace qel::fuzz {
namespace {

constexpr std::size_t kControlSize = 152;

unsigned char* target = nullptr;  ///< null: nothing is planned
Intrusion planned;
bool hasCome = false;

void OnLoad(const void* address) {
    const auto* const byte = static_cast<const unsigned char*>(address);
    if (target == nullptr || byte < target || byte >= target + kControlSize) {
        return;
    }
    if (--planned.loads == 0) {
        std::memcpy(target + planned.offset, &planned.value, planned.width);
        target = nullptr;
        hasCome = true;
    }
}

}  // namespace

void Plan(unsigned char* control, const Intrusion& intrusion) {
    target = control;
    planned = intrusion;
    hasCome = false;
}

bool EndPlan() {
    target = nullptr;
    const bool came = hasCome;
    hasCome = false;
    return came;
}

}  // namespace qel::fuzz

// What the compiler calls ahead of every load of sources built with
// -fsanitize-coverage=trace-loads. NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
void __sanitizer_cov_load1(std::uint8_t* address) {
    qel::fuzz::OnLoad(address);
}
void __sanitizer_cov_load2(std::uint16_t* address) {
    qel::fuzz::OnLoad(address);
}
void __sanitizer_cov_load4(std::uint32_t* address) {
    qel::fuzz::OnLoad(address);
}
void __sanitizer_cov_load8(std::uint64_t* address) {
    qel::fuzz::OnLoad(address);
}
void __sanitizer_cov_load16(void* address) {
    qel::fuzz::OnLoad(address);
}
}
// NOLINTEND(bugprone-reserved-identifier)
