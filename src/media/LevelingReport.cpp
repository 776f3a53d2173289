#include "LevelingReport.h"

namespace ostrand {

const char* rawValue(LevelingPhase phase) noexcept {
    return phase == LevelingPhase::leveling ? "Leveling" : "Analyzing";
}

std::optional<LevelingPhase> levelingPhaseFromRawValue(const std::string& text) {
    if (text == "Analyzing") {
        return LevelingPhase::analyzing;
    }
    if (text == "Leveling") {
        return LevelingPhase::leveling;
    }
    return std::nullopt;
}

} // namespace ostrand
