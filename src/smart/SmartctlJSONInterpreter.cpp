#include "smart/SmartctlJSONInterpreter.h"

#include <unicode/coll.h>
#include <unicode/locid.h>

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>
#include <utility>

#include "smart/SMARTKeyCatalogue.h"
#include "smart/SmartRowOrder.h"
#include "smart/SmartValueText.h"
#include "text/Language.h"
#include "text/Locale.h"
#include "text/Trim.h"

namespace vantorix::smart {
namespace {

using json = nlohmann::ordered_json;

// Top-level members that never become rows.
constexpr std::array<std::string_view, 5> kSkippedTopLevelMembers{"smartctl", "json_format_version", "device",
                                                                  "ata_device", "messages"};

const json* member(const json& object, std::string_view name) {
    if (!object.is_object()) return nullptr;
    const auto found = object.find(name);
    return found == object.end() ? nullptr : &*found;
}

std::optional<bool> booleanMember(const json& object, std::string_view name) {
    const json* value = member(object, name);
    if (value == nullptr || !value->is_boolean()) return std::nullopt;
    return value->get<bool>();
}

// A case-insensitive collator for the user's locale, or null when ICU cannot make one. Collators are
// made once per locale and kept; each interpretation uses its own clone.
std::unique_ptr<icu::Collator> memberNameCollator() {
    static std::mutex mutex;
    static auto* collators = new std::map<std::string, std::unique_ptr<icu::Collator>>;
    const std::string localeId = text::localeId(text::LocaleCategory::collation);
    const std::lock_guard lock(mutex);
    auto found = collators->find(localeId);
    if (found == collators->end()) {
        UErrorCode status = U_ZERO_ERROR;
        std::unique_ptr<icu::Collator> collator(icu::Collator::createInstance(icu::Locale(localeId.c_str()), status));
        if (U_FAILURE(status)) collator.reset();
        if (collator) collator->setStrength(icu::Collator::SECONDARY);  // letters and accents, not case
        found = collators->emplace(localeId, std::move(collator)).first;
    }
    return found->second ? std::unique_ptr<icu::Collator>(found->second->clone()) : nullptr;
}

class Flattener {
public:
    Flattener(bool english, icu::Collator* collator) : english_(english), collator_(collator) {}

    void walkDocument(const json& document) {
        for (auto it = document.begin(); it != document.end(); ++it) {
            const std::string& key = it.key();
            if (std::find(kSkippedTopLevelMembers.begin(), kSkippedTopLevelMembers.end(), key) !=
                kSkippedTopLevelMembers.end()) {
                continue;
            }
            const auto* entry = SMARTKeyCatalogue::descriptor(key);
            visit(it.value(), key, entry ? entry->displayName(english_) : derivedName(key), entry, 1);
        }
    }

    std::vector<DiskSMARTInfo::Detail> takeRows() { return std::move(rows_); }

private:
    void visit(const json& value, std::string path, std::string name, const SMARTKeyDescriptor* entry, int depth) {
        if (value.is_object()) {
            if (depth <= kMaximumWalkDepth) walkObject(value, path, name, depth);
        } else if (value.is_array()) {
            if (depth <= kMaximumWalkDepth) walkArray(value, path, name, entry, depth);
        } else {
            std::string text = formattedValue(value, english_);
            if (text.empty() || (entry != nullptr && !entry->shouldDisplay)) return;
            addRow(std::move(path), std::move(name), std::move(text));
        }
    }

    void walkObject(const json& object, const std::string& path, const std::string& name, int depth) {
        std::vector<json::const_iterator> members;
        members.reserve(object.size());
        for (auto it = object.begin(); it != object.end(); ++it) members.push_back(it);
        std::stable_sort(members.begin(), members.end(),
                         [this](const json::const_iterator& a, const json::const_iterator& b) {
                             return precedes(a.key(), b.key());
                         });
        for (const auto& it : members) {
            std::string memberPath = path + '.' + it.key();
            const auto* entry = SMARTKeyCatalogue::descriptor(memberPath);
            std::string memberName = entry ? entry->displayName(english_) : name + " \u203A " + derivedName(it.key());
            visit(it.value(), std::move(memberPath), std::move(memberName), entry, depth + 1);
        }
    }

    void walkArray(const json& array, const std::string& path, const std::string& name, const SMARTKeyDescriptor* entry,
                   int depth) {
        std::string joined;
        for (std::size_t index = 0; index < array.size(); ++index) {
            const json& element = array[index];
            if (element.is_structured()) {
                std::string elementPath = path + '[' + std::to_string(index) + ']';
                const auto* elementEntry = SMARTKeyCatalogue::descriptor(elementPath);
                std::string elementName = elementEntry ? elementEntry->displayName(english_)
                                                       : name + " #" + std::to_string(index + 1);
                visit(element, std::move(elementPath), std::move(elementName), elementEntry, depth + 1);
                continue;
            }
            const std::string text = formattedValue(element, english_);
            if (text.empty()) continue;
            if (!joined.empty()) joined += ", ";
            joined += text;
        }
        if (joined.empty() || (entry != nullptr && !entry->shouldDisplay)) return;
        addRow(path, entry ? entry->displayName(english_) : name, std::move(joined));
    }

    void addRow(std::string path, std::string name, std::string value) {
        rows_.push_back(DiskSMARTInfo::Detail{Uuid::make(), std::move(path), std::move(name), std::move(value)});
    }

    bool precedes(const std::string& a, const std::string& b) const {
        if (collator_ != nullptr) {
            UErrorCode status = U_ZERO_ERROR;
            const auto order = collator_->compareUTF8(a, b, status);
            if (U_SUCCESS(status)) return order == UCOL_LESS;
        }
        return lowercased(a) < lowercased(b);
    }

    bool english_;
    icu::Collator* collator_;
    std::vector<DiskSMARTInfo::Detail> rows_;
};

}  // namespace

std::optional<std::string> overallStatus(const json& document, bool english) {
    if (const json* status = member(document, "smart_status"); status != nullptr && status->is_object()) {
        if (const json* text = member(*status, "string"); text != nullptr && text->is_string()) {
            const auto& value = text->get_ref<const std::string&>();
            if (!text::trimmed(value).empty()) return value;
        }
        if (const auto passed = booleanMember(*status, "passed")) return *passed ? "PASSED" : "FAILED";
    }
    const json* health = member(document, "nvme_smart_health_information_log");
    if (health != nullptr && health->is_object()) {
        if (const json* warning = member(*health, "critical_warning")) {
            // A container has no scalar text; it counts as no warning.
            if (warning->is_structured()) return std::nullopt;
            std::string text = formattedValue(*warning, english);
            if (!text.empty()) return "NVMe Warning: " + text;
        }
    }
    return std::nullopt;
}

std::optional<bool> capability(const json& document) {
    if (const json* support = member(document, "smart_support"); support != nullptr && support->is_object()) {
        if (const auto available = booleanMember(*support, "available")) return available;
        if (const auto enabled = booleanMember(*support, "enabled")) return enabled;
    }
    if (const json* data = member(document, "ata_smart_data"); data != nullptr && data->is_object()) {
        if (const json* capabilities = member(*data, "capabilities");
            capabilities != nullptr && capabilities->is_object()) {
            if (const auto capable = booleanMember(*capabilities, "smart_capable")) return capable;
            if (const auto supports = booleanMember(*capabilities, "supports_smart")) return supports;
        }
    }
    return std::nullopt;
}

std::vector<DiskSMARTInfo::Detail> flattenedRows(const json& document, bool english) {
    if (!document.is_object()) return {};
    const auto collator = memberNameCollator();
    Flattener flattener(english, collator.get());
    flattener.walkDocument(document);
    return flattener.takeRows();
}

std::optional<DiskSMARTInfo> interpret(const json& document, std::optional<std::string> sourceCommand) {
    if (!document.is_object()) return std::nullopt;
    const bool english = text::isEnglish();
    DiskSMARTInfo info;
    info.overallStatus = overallStatus(document, english);
    info.isCapable = capability(document);
    info.details = flattenedRows(document, english);
    if (!info.overallStatus && !info.isCapable && info.details.empty()) return std::nullopt;
    sortRows(info.details);
    info.sourceCommand = std::move(sourceCommand);
    return info;
}

}  // namespace vantorix::smart
