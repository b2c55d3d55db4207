#include "smart/SmartRowOrder.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include "smart/SmartValueText.h"

namespace vantorix::smart {
namespace {

struct PriorityGroup {
    int priority;
    std::vector<std::string_view> keywords;  // matched as substrings of the lower-cased text
};

// The keywords bucketed by their first byte, each with its group's priority, so that one pass over
// a text finds the best group: the lowest priority among all keywords that occur in it.
class KeywordIndex {
public:
    KeywordIndex() {
        const std::vector<PriorityGroup> groups = {
            {0, {"serial_number", "serial number", "序列号"}},
            {1, {"model_name", "model name", "device name", "信息名称", "型号"}},
            {2, {"firmware_version", "firmware version", "固件", "fw"}},
            {3,
             {"smart_status", "overall-health", "overall health", "health status", "smart 状态", "smart状态",
              "健康状态"}},
            {4, {"temperature", "thermal", "温度", "temp"}},
            {5, {"data_units_written", "host_writes", "bytes_written", "written", "写入", "累计写入"}},
            {6, {"data_units_read", "host_reads", "bytes_read", "read", "读出", "读取", "累计读"}},
            {7, {"power_on_hours", "power_on_time", "power cycle", "power_cycles", "通电时间", "累计通电", "上电"}},
            {8, {"percentage_used", "available_spare", "endurance", "life", "wear", "耐久", "寿命", "使用率", "磨损"}},
            {9, {"unsafe_shutdowns", "media_errors", "crc_error", "错误", "故障", "异常关机"}},
            {10, {"capacity", "总容量", "user_capacity", "unallocated_capacity", "容量"}},
        };
        for (const auto& group : groups) {
            for (const auto keyword : group.keywords) {
                buckets_[static_cast<unsigned char>(keyword.front())].push_back({keyword, group.priority});
            }
        }
    }

    int priorityOf(std::string_view text) const {
        int best = kUnmatchedPriority;
        for (std::size_t i = 0; i < text.size() && best > 0; ++i) {
            for (const auto& [keyword, priority] : buckets_[static_cast<unsigned char>(text[i])]) {
                // Every keyword has at least two bytes; the second one rules most candidates out cheaply.
                if (priority < best && text.size() - i >= keyword.size() && text[i + 1] == keyword[1] &&
                    text.compare(i + 2, keyword.size() - 2, keyword.substr(2)) == 0) {
                    best = priority;
                }
            }
        }
        return best;
    }

private:
    std::array<std::vector<std::pair<std::string_view, int>>, 256> buckets_;
};

int priorityOfText(std::string_view text) {
    static const KeywordIndex index;
    return index.priorityOf(text);
}

}  // namespace

int rowPriority(std::string_view keyPath, std::string_view displayName) {
    std::string text;
    text.reserve(keyPath.size() + 1 + displayName.size());
    text.append(keyPath).append(" ").append(displayName);
    return priorityOfText(lowercased(text));
}

void sortRows(std::vector<DiskSMARTInfo::Detail>& rows) {
    struct Key {
        int priority;
        std::string name;  // lower-cased; UTF-8 byte order is code-point order
        std::size_t index;
    };
    std::vector<Key> keys;
    keys.reserve(rows.size());
    for (std::size_t i = 0; i < rows.size(); ++i) {
        keys.push_back({rowPriority(rows[i].keyPath, rows[i].displayName), lowercased(rows[i].displayName), i});
    }
    // The index is the last key, so an ordinary sort gives the stable order.
    std::sort(keys.begin(), keys.end(), [](const Key& a, const Key& b) {
        if (a.priority != b.priority) return a.priority < b.priority;
        if (const int order = a.name.compare(b.name); order != 0) return order < 0;
        return a.index < b.index;
    });
    std::vector<DiskSMARTInfo::Detail> sorted;
    sorted.reserve(rows.size());
    for (const auto& key : keys) sorted.push_back(std::move(rows[key.index]));
    rows = std::move(sorted);
}

}  // namespace vantorix::smart
