#include "dashboard/SymbolIcons.h"

#include <array>
#include <utility>

namespace vantorix::dashboard {

SymbolIcon symbolIcon(std::string_view symbol) {
    // The one table from the symbol names the views use to theme icons and bundled pictures.
    static constexpr std::array<std::pair<std::string_view, SymbolIcon>, 35> kTable{{
        {"internaldrive", {"drive-harddisk-symbolic", "drive"}},
        {"internaldrive.fill", {"drive-harddisk-symbolic", "drive"}},
        {"externaldrive", {"drive-removable-media-symbolic", "drive"}},
        {"externaldrive.fill", {"drive-removable-media-symbolic", "drive"}},
        {"bolt.horizontal.fill", {"network-wired-symbolic", "bolt"}},
        {"doc.text.fill", {"text-x-generic-symbolic", "doc"}},
        {"building.2.fill", {"computer-symbolic", "building"}},
        {"chart.pie.fill", {"drive-multidisk-symbolic", "pie"}},
        {"play.fill", {"media-playback-start-symbolic", "play"}},
        {"pause.fill", {"media-playback-pause-symbolic", "pause"}},
        {"stop.fill", {"media-playback-stop-symbolic", "stop"}},
        {"wrench.and.screwdriver.fill", {"preferences-system-symbolic", "wrench"}},
        {"square.and.arrow.down", {"document-save-symbolic", "save"}},
        {"square.and.arrow.down.fill", {"go-down-symbolic", "arrow-down"}},
        {"square.and.arrow.up.fill", {"go-up-symbolic", "arrow-up"}},
        {"arrow.clockwise", {"view-refresh-symbolic", "refresh"}},
        {"speedometer", {"utilities-system-monitor-symbolic", "gauge"}},
        {"gauge.with.needle", {"utilities-system-monitor-symbolic", "gauge"}},
        {"arrow.down.circle.fill", {"go-down-symbolic", "arrow-down"}},
        {"arrow.up.circle.fill", {"go-up-symbolic", "arrow-up"}},
        {"arrow.down.to.line.compact", {"go-bottom-symbolic", "arrow-down"}},
        {"arrow.up.to.line.compact", {"go-top-symbolic", "arrow-up"}},
        {"clock", {"document-open-recent-symbolic", "clock"}},
        {"clock.fill", {"document-open-recent-symbolic", "clock"}},
        {"clock.badge.checkmark", {"emblem-ok-symbolic", "check"}},
        {"hourglass", {"content-loading-symbolic", "clock"}},
        {"thermometer", {"sensors-temperature-symbolic", "thermometer"}},
        {"tray.full.fill", {"folder-symbolic", "tray"}},
        {"square.grid.3x3", {"view-grid-symbolic", "grid"}},
        {"square.grid.3x3.fill", {"view-grid-symbolic", "grid"}},
        {"exclamationmark.triangle.fill", {"dialog-warning-symbolic", "warning"}},
        {"checkmark.circle.fill", {"emblem-ok-symbolic", "check"}},
        {"info.circle", {"dialog-information-symbolic", "info"}},
        {"envelope", {"mail-send-symbolic", "doc"}},
        {"arrow.down.circle", {"go-down-symbolic", "arrow-down"}},
    }};
    for (const auto& [name, icon] : kTable) {
        if (name == symbol) return icon;
    }
    return {"image-missing-symbolic", "info"};
}

}  // namespace vantorix::dashboard
