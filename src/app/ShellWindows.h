#pragma once

#include <QWidget>

#include <string>

#include "dashboard/ShellTexts.h"

namespace vantorix::app {

// The About or Feedback window: its title and default size around its content, which fills it from
// the top left.
class ShellWindow final : public QWidget {
    Q_OBJECT
public:
    ShellWindow(const dashboard::WindowSpec& spec, QWidget* content, QWidget* parent = nullptr);
    const std::string& identifier() const { return identifier_; }

private:
    std::string identifier_;
};

// "Version: 0.1.0 · Build: 7" for this build.
std::string buildVersionLine();

}  // namespace vantorix::app
