#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "concurrency/MainExecutor.h"
#include "platform/HttpClient.h"
#include "services/ServiceConfiguration.h"
#include "util/Result.h"

namespace vantorix {
class SerialQueue;
}

namespace vantorix::services {

enum class FeedbackType { suggestion, bug, feature, other };

std::string_view wireValue(FeedbackType type);
std::optional<FeedbackType> feedbackTypeFromWire(std::string_view value);
// The picker's label in the interface language.
std::string feedbackTypeLabel(FeedbackType type);

struct FeedbackLimits {
    static constexpr int titleMin = 5;
    static constexpr int titleMax = 100;
    static constexpr int contentMin = 20;
    static constexpr int contentMax = 2000;
};

// Number of user-perceived characters (grapheme clusters) of UTF-8 text.
std::size_t characterCount(std::string_view text);
// The first `maximum` user-perceived characters of `text` (all of it when it is shorter).
std::string limitCharacters(std::string_view text, std::size_t maximum);

struct FeedbackForm {
    FeedbackType type = FeedbackType::suggestion;
    std::string title;
    std::string content;
    std::string contactEmail;

    // Applies the input limits (title and content cut to their maximum) as a field changes.
    void applyLimits();
};

// The first failing check's message (title, content, e-mail, in that order), or nothing.
std::optional<std::string> validationMessage(const FeedbackForm& form);

// The JSON request body (contactEmail left out when empty after trimming); nothing when a text is
// not valid UTF-8 and so cannot be serialised.
std::optional<std::string> requestBody(const FeedbackForm& form, std::string_view productId);

// POST URL: base URL + "/api/feedback"; nothing when it cannot be built.
std::optional<std::string> feedbackEndpoint(const ServiceConfiguration& configuration);

struct FeedbackOutcome {
    std::string message;     // for the "Notice" alert
    bool resetForm = false;  // true only after an accepted submission
    bool accepted = false;   // 201 with success true
    std::optional<std::string> feedbackId;
};

// Turns the service's answer (or the failure to get one) into the outcome.
FeedbackOutcome interpretFeedbackAnswer(const Result<HttpResponse, HttpError>& answer);

inline constexpr std::chrono::milliseconds kFeedbackTimeout{std::chrono::seconds(60)};

// Validation, then the request and its answer, blocking. A validation failure sends nothing.
FeedbackOutcome submitFeedback(HttpClient& client, const ServiceConfiguration& configuration, const FeedbackForm& form,
                               std::chrono::milliseconds timeout = kFeedbackTimeout);

// The Feedback window's submission, off the main thread, answered on it.
class FeedbackSubmitter : public std::enable_shared_from_this<FeedbackSubmitter> {
public:
    struct Dependencies {
        std::shared_ptr<HttpClient> client;
        std::shared_ptr<MainExecutor> mainExecutor;
        ServiceConfiguration configuration;
    };
    // `timeout` limits each request; shorter ones are for tests.
    static std::shared_ptr<FeedbackSubmitter> create(Dependencies dependencies,
                                                     std::chrono::milliseconds timeout = kFeedbackTimeout);
    ~FeedbackSubmitter();

    // Main thread. Validates; on a failure calls `done` at once (nothing sent) and returns true.
    // Otherwise sends, with isSubmitting() true until `done` runs on the main thread. Returns
    // false, doing nothing, while a submission is in flight. Destroying the submitter cancels
    // nothing, but `done` is no longer called.
    bool submit(const FeedbackForm& form, std::function<void(const FeedbackOutcome&)> done);
    bool isSubmitting() const { return submitting_; }

private:
    FeedbackSubmitter(Dependencies dependencies, std::chrono::milliseconds timeout);
    Dependencies dependencies_;
    std::chrono::milliseconds timeout_;
    // Shared with the submission in flight (see UpdateChecker).
    std::shared_ptr<SerialQueue> queue_;
    bool submitting_ = false;
};

}  // namespace vantorix::services
