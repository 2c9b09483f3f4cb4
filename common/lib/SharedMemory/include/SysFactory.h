#pragma once

#include <memory>
#include <string_view>

#include "QevExport.h"
#include "SysIF.h"

namespace qel {

/// Makes system-call interfaces.
class QEV_EXPORT SysFactory {
public:
    /// A new `Sys`, whatever the name. The caller shares its ownership; no two calls return the
    /// same object.
    [[nodiscard]] static std::shared_ptr<SysIF> Create(std::string_view name);
};

}  // namespace qel
