#include "services/Feedback.h"

#include <unicode/brkiter.h>
#include <unicode/utext.h>

#include <nlohmann/json.hpp>

#include <array>
#include <regex>

#include "concurrency/SerialQueue.h"
#include "services/ServiceUrls.h"
#include "text/Language.h"
#include "text/Messages.h"
#include "text/Trim.h"
#include "text/Utf8.h"

namespace vantorix::services {
namespace {

using text::isValidUtf8;
using text::localized;
using text::nextCodePoint;
using text::trimmed;

constexpr std::array<std::pair<FeedbackType, std::string_view>, 4> kWireValues{{
    {FeedbackType::suggestion, "suggestion"},
    {FeedbackType::bug, "bug"},
    {FeedbackType::feature, "feature"},
    {FeedbackType::other, "other"},
}};

// Calls `visit` with the byte offset of each grapheme cluster's end, in order, while it returns
// true. Invalid UTF-8 counts one cluster per malformed sequence.
template <class Visit>
void forEachClusterEnd(std::string_view text, Visit&& visit) {
    if (text.empty()) return;
    // Making a break iterator loads rules; one per thread is kept and reused.
    thread_local std::unique_ptr<icu::BreakIterator> iterator = [] {
        UErrorCode status = U_ZERO_ERROR;
        std::unique_ptr<icu::BreakIterator> made(
            icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
        return U_SUCCESS(status) ? std::move(made) : nullptr;
    }();
    UErrorCode status = U_ZERO_ERROR;
    UText* utext = utext_openUTF8(nullptr, text.data(), static_cast<int64_t>(text.size()), &status);
    if (U_FAILURE(status) || !iterator) {
        utext_close(utext);
        // Without ICU's rules, one code point stands for one character.
        for (std::size_t at = 0; at < text.size();) {
            nextCodePoint(text, at);
            if (!visit(at)) return;
        }
        return;
    }
    iterator->setText(utext, status);
    if (U_SUCCESS(status)) {
        for (std::int32_t end = iterator->next(); end != icu::BreakIterator::DONE; end = iterator->next()) {
            if (!visit(static_cast<std::size_t>(end))) break;
        }
    }
    // The iterator keeps a shallow clone of `utext`; it is not used again before the next setText.
    utext_close(utext);
}

bool lengthWithin(std::string_view text, int minimum, int maximum) {
    const std::size_t count = characterCount(trimmed(text));
    return count >= static_cast<std::size_t>(minimum) && count <= static_cast<std::size_t>(maximum);
}

bool isEmailAddress(const std::string& address) {
    static const std::regex pattern("^[A-Z0-9._%+-]+@[A-Z0-9.-]+\\.[A-Z]{2,}$",
                                    std::regex::ECMAScript | std::regex::icase);
    return std::regex_match(address, pattern);
}

// An outcome that keeps the form as it is.
FeedbackOutcome kept(std::string message) { return FeedbackOutcome{std::move(message), false, false, std::nullopt}; }

FeedbackOutcome serverError() { return kept(text::feedbackServerError(500)); }

}  // namespace

std::string_view wireValue(FeedbackType type) {
    for (const auto& [candidate, wire] : kWireValues) {
        if (candidate == type) return wire;
    }
    return "other";
}

std::optional<FeedbackType> feedbackTypeFromWire(std::string_view value) {
    for (const auto& [type, wire] : kWireValues) {
        if (wire == value) return type;
    }
    return std::nullopt;
}

std::string feedbackTypeLabel(FeedbackType type) {
    switch (type) {
        case FeedbackType::suggestion: return localized("建议", "Suggestion");
        case FeedbackType::bug: return localized("问题", "Bug");
        case FeedbackType::feature: return localized("功能", "Feature");
        case FeedbackType::other: break;
    }
    return localized("其他", "Other");
}

std::size_t characterCount(std::string_view text) {
    std::size_t count = 0;
    forEachClusterEnd(text, [&count](std::size_t) {
        ++count;
        return true;
    });
    return count;
}

std::string limitCharacters(std::string_view text, std::size_t maximum) {
    std::size_t count = 0;
    std::size_t cut = maximum == 0 ? 0 : text.size();
    if (maximum > 0) {
        forEachClusterEnd(text, [&](std::size_t end) {
            if (++count < maximum) return true;
            cut = end;
            return false;
        });
    }
    return std::string(text.substr(0, cut));
}

void FeedbackForm::applyLimits() {
    title = limitCharacters(title, FeedbackLimits::titleMax);
    content = limitCharacters(content, FeedbackLimits::contentMax);
}

std::optional<std::string> validationMessage(const FeedbackForm& form) {
    if (!lengthWithin(form.title, FeedbackLimits::titleMin, FeedbackLimits::titleMax)) {
        return localized("标题长度需 5–100", "Title length must be 5–100");
    }
    if (!lengthWithin(form.content, FeedbackLimits::contentMin, FeedbackLimits::contentMax)) {
        return localized("内容长度需 20–2000", "Content length must be 20–2000");
    }
    const std::string email(trimmed(form.contactEmail));
    if (!email.empty() && !isEmailAddress(email)) return localized("邮箱格式不正确", "Invalid email format");
    return std::nullopt;
}

std::optional<std::string> requestBody(const FeedbackForm& form, std::string_view productId) {
    nlohmann::json body{
        {"feedbackType", wireValue(form.type)},
        {"title", trimmed(form.title)},
        {"content", trimmed(form.content)},
        {"relatedProductId", productId},
    };
    if (std::string email(trimmed(form.contactEmail)); !email.empty()) body["contactEmail"] = std::move(email);
    try {
        return body.dump();
    } catch (const nlohmann::json::exception&) {
        return std::nullopt;  // a text that is not valid UTF-8
    }
}

std::optional<std::string> feedbackEndpoint(const ServiceConfiguration& configuration) {
    return serviceUrl(configuration, "/api/feedback");
}

FeedbackOutcome interpretFeedbackAnswer(const Result<HttpResponse, HttpError>& answer) {
    if (!answer.ok()) return serverError();
    const HttpResponse& response = answer.value();
    if (response.status == 201) {
        const auto decoded = nlohmann::json::parse(response.body, nullptr, false);
        if (decoded.is_object()) {
            const auto success = decoded.find("success");
            const auto id = decoded.find("id");
            if (success != decoded.end() && success->is_boolean() && success->get<bool>() && id != decoded.end() &&
                id->is_string()) {
                const std::string feedbackId = id->get<std::string>();
                return FeedbackOutcome{text::feedbackAccepted(feedbackId), true, true, feedbackId};
            }
        }
        return kept(localized("提交成功，但响应解析失败", "Submitted, but failed to parse response"));
    }
    if (response.status == 400) {
        if (isValidUtf8(response.body)) return kept(response.body);
        return kept(localized("提交失败：参数校验失败", "Submission failed: validation error"));
    }
    return kept(text::feedbackServerError(static_cast<int>(response.status)));
}

FeedbackOutcome submitFeedback(HttpClient& client, const ServiceConfiguration& configuration, const FeedbackForm& form,
                               std::chrono::milliseconds timeout) {
    if (auto message = validationMessage(form)) return kept(std::move(*message));
    const auto endpoint = feedbackEndpoint(configuration);
    auto body = requestBody(form, configuration.productId);
    if (!endpoint || !body) return serverError();

    HttpRequest request;
    request.method = HttpRequest::Method::post;
    request.url = *endpoint;
    request.headers = {{"Content-Type", "application/json"}};
    request.body = std::move(*body);
    request.timeout = timeout;
    return interpretFeedbackAnswer(client.send(request));
}

FeedbackSubmitter::FeedbackSubmitter(Dependencies dependencies, std::chrono::milliseconds timeout)
    : dependencies_(std::move(dependencies)),
      timeout_(timeout),
      queue_(std::make_shared<SerialQueue>("com.vantorix.services.feedback", QualityOfService::userInitiated)) {}

FeedbackSubmitter::~FeedbackSubmitter() = default;

std::shared_ptr<FeedbackSubmitter> FeedbackSubmitter::create(Dependencies dependencies,
                                                             std::chrono::milliseconds timeout) {
    return std::shared_ptr<FeedbackSubmitter>(new FeedbackSubmitter(std::move(dependencies), timeout));
}

bool FeedbackSubmitter::submit(const FeedbackForm& form, std::function<void(const FeedbackOutcome&)> done) {
    if (submitting_) return false;
    if (auto message = validationMessage(form)) {
        if (done) done(kept(std::move(*message)));
        return true;
    }
    submitting_ = true;
    // The work holds what it uses, the queue included, and the submitter only weakly.
    queue_->async([self = weak_from_this(), queue = queue_, client = dependencies_.client,
                   main = dependencies_.mainExecutor, configuration = dependencies_.configuration, timeout = timeout_,
                   form, done = std::move(done)]() mutable {
        FeedbackOutcome outcome = submitFeedback(*client, configuration, form, timeout);
        main->post([self, outcome = std::move(outcome), done = std::move(done)] {
            const auto submitter = self.lock();
            if (!submitter) return;
            submitter->submitting_ = false;
            if (done) done(outcome);
        });
    });
    return true;
}

}  // namespace vantorix::services
