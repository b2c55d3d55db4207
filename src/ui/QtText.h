#pragma once

#include <QString>

#include <string>

namespace vantorix::ui {

// A text made by the core (UTF-8) as Qt shows it.
inline QString qText(const std::string& text) { return QString::fromStdString(text); }

}  // namespace vantorix::ui
