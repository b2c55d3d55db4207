#pragma once

#include "services/UpdateCheck.h"

namespace vantorix::ui {

// Opens a file with the desktop's default application for its type (xdg-open and the like).
class DesktopFileOpener final : public services::FileOpener {
public:
    void open(const std::string& path) override;
};

}  // namespace vantorix::ui
