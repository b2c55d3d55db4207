#pragma once

#include <QWidget>

#include <string>

#include "dashboard/ShellTexts.h"

namespace vantorix::app {

// The About or Feedback window: its title and size, and for now the title and the version line
// at its top left (their full content comes with the vendor's web service).
class ShellWindow final : public QWidget {
    Q_OBJECT
public:
    explicit ShellWindow(const dashboard::WindowSpec& spec, QWidget* parent = nullptr);
    const std::string& identifier() const { return identifier_; }

private:
    std::string identifier_;
};

// "Version: 0.1.0 · Build: 7" for this build.
std::string buildVersionLine();

}  // namespace vantorix::app
