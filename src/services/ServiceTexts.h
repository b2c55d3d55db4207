#pragma once

#include <string>

namespace vantorix::services {

// The About and Feedback windows' fixed texts, in the interface language.

std::string aboutDescription();
std::string aboutCredit();
std::string checkUpdateButton();
std::string checkingUpdate();     // beside the busy indicator while a check runs
std::string downloadingUpdate();  // while a download runs
std::string downloadPromptTitle();
std::string downloadButton();
std::string cancelButton();
std::string noticeTitle();

std::string feedbackTypePickerLabel();
std::string titlePlaceholder();
std::string contentPlaceholder();
std::string emailPlaceholder();
std::string submitButton();
std::string submitting();  // beside the busy indicator while a submission is in flight

}  // namespace vantorix::services
