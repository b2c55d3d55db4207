#include "smart/SMARTKeyCatalogue.h"

#include <unicode/uchar.h>

#include <array>

#include "text/Language.h"
#include "text/Utf8.h"

namespace vantorix {

const std::string& SMARTKeyDescriptor::localizedDisplayName() const { return displayName(text::isEnglish()); }

namespace SMARTKeyCatalogue {
namespace {

// A row of the table below.
struct KeyRow {
    const char* key;
    const char* chinese;
    const char* english;
    bool shown;
};

// The 177 known key paths: 67 shown, then 110 hidden. A hidden entry still names its object or
// array, and that name prefixes the derived names of the container's unknown members.
constexpr auto kKeyRows = std::to_array<KeyRow>({
    // Shown.
    {"device.name", "设备名称", "Device Name", true},
    {"device.info_name", "信息名称", "Info Name", true},
    {"device.type", "设备类型", "Device Type", true},
    {"device.protocol", "通信协议", "Protocol", true},
    {"model_name", "型号", "Model Name", true},
    {"serial_number", "序列号", "Serial Number", true},
    {"firmware_version", "固件版本", "Firmware Version", true},
    {"nvme_total_capacity", "总容量 (字节)", "Total Capacity (Bytes)", true},
    {"nvme_unallocated_capacity", "未分配容量", "Unallocated Capacity", true},
    {"endurance_used.current_percent", "已用耐久度 (%)", "Endurance Consumed (%)", true},
    {"smart_status", "SMART 状态", "SMART Status", true},
    {"smart_status.string", "状态描述", "Status Description", true},
    {"smart_status.passed", "自检是否通过", "Self-test Passed", true},
    {"temperature", "温度", "Temperature", true},
    {"temperature.current", "当前温度", "Current Temperature", true},
    {"temperature_celsius", "温度（°C）", "Temperature (°C)", true},
    {"airflow_temperature_cel", "气流温度（°C）", "Airflow Temperature (°C)", true},
    {"drive_temperature", "硬盘温度", "Drive Temperature", true},
    {"power_cycle_count", "通电次数", "Power Cycle Count", true},
    {"power_cycles", "通电次数", "Power Cycles", true},
    {"power_on_hours", "通电小时", "Power-on Hours", true},
    {"power_on_time.hours", "累计运行（小时）", "Power-on Time (Hours)", true},
    {"unsafe_shutdowns", "异常断电次数", "Unsafe Shutdowns", true},
    {"media_errors", "介质错误次数", "Media Errors", true},
    {"num_err_log_entries", "错误日志条目", "Error Log Entries", true},
    {"nvme_smart_health_information_log", "NVMe 健康信息", "NVMe Health Information", true},
    {"nvme_smart_health_information_log.critical_warning", "关键警告", "Critical Warning", true},
    {"nvme_smart_health_information_log.temperature", "主控温度", "Controller Temperature", true},
    {"nvme_smart_health_information_log.temperature_sensors[].temperature", "温度传感器读数",
     "Temperature Sensor Reading", true},
    {"nvme_smart_health_information_log.temperature_sensors", "温度传感器", "Temperature Sensors", true},
    {"nvme_smart_health_information_log.available_spare", "备用容量百分比", "Available Spare (%)", true},
    {"nvme_smart_health_information_log.percentage_used", "寿命已用 (%)", "Percentage Used (%)", true},
    {"nvme_smart_health_information_log.data_units_read", "读取数据单元", "Data Units Read", true},
    {"nvme_smart_health_information_log.data_units_written", "写入数据单元", "Data Units Written", true},
    {"nvme_smart_health_information_log.host_reads", "主机读取次数", "Host Reads", true},
    {"nvme_smart_health_information_log.host_writes", "主机写入次数", "Host Writes", true},
    {"nvme_smart_health_information_log.host_reads_32mib", "主机读取（32MiB 块）", "Host Reads (32MiB Units)", true},
    {"nvme_smart_health_information_log.host_writes_32mib", "主机写入（32MiB 块）", "Host Writes (32MiB Units)", true},
    {"nvme_smart_health_information_log.controller_busy_time", "控制器忙时", "Controller Busy Time", true},
    {"nvme_smart_health_information_log.warning_temp_time", "高温警告时长", "Warning Temperature Time", true},
    {"nvme_smart_health_information_log.critical_comp_time", "关键温度时长", "Critical Temperature Time", true},
    {"nvme_smart_health_information_log.power_cycles", "NVMe 通电次数", "NVMe Power Cycles", true},
    {"nvme_smart_health_information_log.power_on_hours", "NVMe 通电小时", "NVMe Power-on Hours", true},
    {"nvme_smart_health_information_log.unsafe_shutdowns", "NVMe 异常断电", "NVMe Unsafe Shutdowns", true},
    {"nvme_smart_health_information_log.media_errors", "NVMe 介质错误", "NVMe Media Errors", true},
    {"nvme_smart_health_information_log.num_err_log_entries", "NVMe 错误日志", "NVMe Error Log Entries", true},
    {"ata_smart_attributes.table[].id", "属性 ID", "Attribute ID", true},
    {"ata_smart_attributes.table[].name", "属性名称", "Attribute Name", true},
    {"ata_smart_attributes.table[].value", "当前值", "Current Value", true},
    {"ata_smart_attributes.table[].worst", "历史最差", "Worst Value", true},
    {"ata_smart_attributes.table[].thresh", "阈值", "Threshold", true},
    {"ata_smart_attributes.table[].when_failed", "失败记录", "Failure Record", true},
    {"ata_smart_attributes.table[].raw.value", "原始数值", "Raw Value", true},
    {"ata_smart_attributes.table[].raw.string", "原始描述", "Raw Description", true},
    {"ata_smart_attributes.table[].flags.passed", "通过检测", "Passed", true},
    {"ata_smart_attributes.table[].flags.prefailure", "可能失效", "Pre-failure", true},
    {"ata_smart_attributes.table[].flags.online", "在线监控", "Online Monitoring", true},
    {"ata_smart_attributes.table[].flags.performance", "性能相关", "Performance", true},
    {"ata_smart_attributes.table[].flags.error_rate", "错误率相关", "Error Rate", true},
    {"ata_smart_attributes.table[].flags.event_count", "事件计数", "Event Count", true},
    {"ata_smart_attributes.table[].flags.auto_keep", "自动保存", "Auto Keep", true},
    {"lifetime_writes", "累计写入", "Lifetime Writes", true},
    {"lifetime_reads", "累计读取", "Lifetime Reads", true},
    {"error_count", "错误计数", "Error Count", true},
    {"available_spare", "可用备用空间", "Available Spare", true},
    {"available_spare_threshold", "备用空间阈值", "Spare Threshold", true},
    {"percentage_used", "使用百分比", "Percentage Used", true},
    // Hidden.
    {"json_format_version", "JSON 格式版本", "JSON Format Version", false},
    {"smartctl", "smartctl 元信息", "smartctl Metadata", false},
    {"smartctl.version", "smartctl 版本", "smartctl Version", false},
    {"smartctl.pre_release", "预发布版本", "Pre-release Build", false},
    {"smartctl.svn_revision", "SVN 修订号", "SVN Revision", false},
    {"smartctl.platform_info", "平台信息", "Platform Info", false},
    {"smartctl.build_info", "构建信息", "Build Information", false},
    {"smartctl.argv", "命令参数", "Command Arguments", false},
    {"smartctl.messages[]", "smartctl 消息", "smartctl Message", false},
    {"smartctl.messages[].string", "消息内容", "Message Text", false},
    {"smartctl.messages[].severity", "严重程度", "Severity", false},
    {"smartctl.exit_status", "smartctl 退出码", "smartctl Exit Status", false},
    {"local_time", "本地时间", "Local Time", false},
    {"local_time.time_t", "UNIX 时间戳", "UNIX Timestamp", false},
    {"local_time.asctime", "时间文本", "Time String", false},
    {"device", "设备信息", "Device Information", false},
    {"nvme_pci_vendor", "NVMe PCI 厂商", "NVMe PCI Vendor", false},
    {"nvme_pci_vendor.id", "厂商 ID", "Vendor ID", false},
    {"nvme_pci_vendor.subsystem_id", "子系统 ID", "Subsystem ID", false},
    {"nvme_ieee_oui_identifier", "IEEE OUI 标识", "IEEE OUI Identifier", false},
    {"nvme_controller_id", "控制器 ID", "Controller ID", false},
    {"nvme_version", "NVMe 版本信息", "NVMe Version Information", false},
    {"nvme_version.string", "版本字符串", "Version String", false},
    {"nvme_version.value", "版本值", "Version Value", false},
    {"nvme_number_of_namespaces", "命名空间数量", "Number of Namespaces", false},
    {"nvme_firmware_update_capabilities", "固件更新能力", "Firmware Update Capabilities", false},
    {"nvme_firmware_update_capabilities.value", "能力值", "Capability Value", false},
    {"nvme_firmware_update_capabilities.slots", "固件槽位", "Firmware Slots", false},
    {"nvme_firmware_update_capabilities.first_slot_is_read_only", "槽位只读", "First Slot Read-only", false},
    {"nvme_firmware_update_capabilities.activiation_without_reset", "无需重启激活", "Activate Without Reset", false},
    {"nvme_firmware_update_capabilities.multiple_update_detection", "多重更新检测", "Multiple Update Detection", false},
    {"nvme_firmware_update_capabilities.other", "其他能力标志", "Other Capability Flags", false},
    {"nvme_optional_admin_commands", "可选管理指令", "Optional Admin Commands", false},
    {"nvme_optional_admin_commands.value", "指令位图", "Command Bitmap", false},
    {"nvme_optional_admin_commands.format_nvm", "支持格式化 NVM", "Format NVM Supported", false},
    {"nvme_optional_admin_commands.firmware_download", "支持固件下载", "Firmware Download Supported", false},
    {"nvme_optional_admin_commands.security_send_receive", "安全传输支持", "Security Send/Receive", false},
    {"nvme_optional_admin_commands.namespace_management", "命名空间管理", "Namespace Management", false},
    {"nvme_optional_admin_commands.self_test", "支持自检", "Self-test Supported", false},
    {"nvme_optional_admin_commands.directives", "指令集支持", "Directives Supported", false},
    {"nvme_optional_admin_commands.mi_send_receive", "管理接口传输", "MI Send/Receive", false},
    {"nvme_optional_admin_commands.virtualization_management", "虚拟化管理", "Virtualization Management", false},
    {"nvme_optional_admin_commands.doorbell_buffer_config", "门铃缓冲配置", "Doorbell Buffer Config", false},
    {"nvme_optional_admin_commands.get_lba_status", "LBA 状态查询", "Get LBA Status", false},
    {"nvme_optional_admin_commands.command_and_feature_lockdown", "指令锁定", "Command & Feature Lockdown", false},
    {"nvme_optional_admin_commands.other", "其他管理指令", "Other Admin Commands", false},
    {"nvme_optional_nvm_commands", "可选 NVM 指令", "Optional NVM Commands", false},
    {"nvme_optional_nvm_commands.value", "NVM 指令位图", "NVM Command Bitmap", false},
    {"nvme_optional_nvm_commands.compare", "支持 Compare", "Compare Supported", false},
    {"nvme_optional_nvm_commands.write_uncorrectable", "支持不可校写入", "Write Uncorrectable", false},
    {"nvme_optional_nvm_commands.dataset_management", "支持数据集管理", "Dataset Management", false},
    {"nvme_optional_nvm_commands.write_zeroes", "支持写入零", "Write Zeroes", false},
    {"nvme_optional_nvm_commands.save_select_feature_nonzero", "非零选择特性", "Save/Select Feature Non-zero", false},
    {"nvme_optional_nvm_commands.reservations", "支持保留集", "Reservations", false},
    {"nvme_optional_nvm_commands.timestamp", "支持时间戳", "Timestamp Supported", false},
    {"nvme_optional_nvm_commands.verify", "支持 Verify", "Verify Supported", false},
    {"nvme_optional_nvm_commands.copy", "支持 Copy", "Copy Supported", false},
    {"nvme_optional_nvm_commands.other", "其他 NVM 指令", "Other NVM Commands", false},
    {"nvme_log_page_attributes", "日志页面能力", "Log Page Attributes", false},
    {"nvme_log_page_attributes.value", "能力位图", "Attribute Bitmap", false},
    {"nvme_log_page_attributes.smart_health_per_namespace", "按命名空间健康", "SMART per Namespace", false},
    {"nvme_log_page_attributes.commands_effects_log", "指令影响日志", "Commands Effects Log", false},
    {"nvme_log_page_attributes.extended_get_log_page_cmd", "扩展日志命令", "Extended Get Log Page", false},
    {"nvme_log_page_attributes.telemetry_log", "遥测日志", "Telemetry Log", false},
    {"nvme_log_page_attributes.persistent_event_log", "持久事件日志", "Persistent Event Log", false},
    {"nvme_log_page_attributes.supported_log_pages_log", "支持的日志页面", "Supported Log Pages", false},
    {"nvme_log_page_attributes.telemetry_data_area_4", "遥测数据区 4", "Telemetry Data Area 4", false},
    {"nvme_log_page_attributes.other", "其他日志属性", "Other Log Attributes", false},
    {"nvme_maximum_data_transfer_pages", "最大数据传输页数", "Maximum Data Transfer Pages", false},
    {"nvme_power_states[]", "功率状态", "Power State", false},
    {"nvme_power_states[].non_operational_state", "是否非运行态", "Non-operational State", false},
    {"nvme_power_states[].relative_read_latency", "相对读取时延", "Relative Read Latency", false},
    {"nvme_power_states[].relative_read_throughput", "相对读取吞吐", "Relative Read Throughput", false},
    {"nvme_power_states[].relative_write_latency", "相对写入时延", "Relative Write Latency", false},
    {"nvme_power_states[].relative_write_throughput", "相对写入吞吐", "Relative Write Throughput", false},
    {"nvme_power_states[].entry_latency_us", "进入延迟 (µs)", "Entry Latency (µs)", false},
    {"nvme_power_states[].exit_latency_us", "退出延迟 (µs)", "Exit Latency (µs)", false},
    {"nvme_power_states[].max_power", "最大功耗", "Maximum Power", false},
    {"nvme_power_states[].max_power.value", "功耗值", "Power Value", false},
    {"nvme_power_states[].max_power.scale", "功耗单位比例", "Power Scale", false},
    {"nvme_power_states[].max_power.units_per_watt", "单位换算", "Units per Watt", false},
    {"nvme_error_information_log", "NVMe 错误日志", "NVMe Error Information Log", false},
    {"nvme_error_information_log.size", "日志容量", "Log Capacity", false},
    {"nvme_error_information_log.read", "已读取条目", "Entries Read", false},
    {"nvme_error_information_log.unread", "未读条目", "Entries Unread", false},
    {"nvme_composite_temperature_threshold", "温度阈值", "Temperature Thresholds", false},
    {"nvme_composite_temperature_threshold.warning", "警告阈值 (°C)", "Warning Threshold (°C)", false},
    {"nvme_composite_temperature_threshold.critical", "关键阈值 (°C)", "Critical Threshold (°C)", false},
    {"temperature.op_limit_max", "运行上限温度", "Operational Limit Temperature", false},
    {"temperature.critical_limit_max", "关键上限温度", "Critical Limit Temperature", false},
    {"spare_available", "备用空间", "Spare Availability", false},
    {"spare_available.current_percent", "当前备用 (%)", "Current Spare (%)", false},
    {"spare_available.threshold_percent", "备用阈值 (%)", "Spare Threshold (%)", false},
    {"endurance_used", "耐久度使用", "Endurance Used", false},
    {"smart_status.nvme.value", "NVMe 状态值", "NVMe Status Value", false},
    {"smart_status.self_test_execution_status.value", "自检执行状态", "Self-test Execution State", false},
    {"smart_status.self_test_execution_status.description", "自检状态说明", "Self-test Status Description", false},
    {"smart_support", "SMART 支持信息", "SMART Support", false},
    {"smart_support.available", "是否可用", "Available", false},
    {"smart_support.enabled", "是否已启用", "Enabled", false},
    {"temperature_fahrenheit", "温度（°F）", "Temperature (°F)", false},
    {"temperature_kelvin", "温度（K）", "Temperature (K)", false},
    {"exit_status", "命令退出状态", "Command Exit Status", false},
    {"power_on_time.minutes", "累计运行（分钟）", "Power-on Time (Minutes)", false},
    {"nvme_smart_health_information_log.nsid", "命名空间 ID", "Namespace ID", false},
    {"nvme_smart_health_information_log.available_spare_threshold", "备用阈值 (%)", "Available Spare Threshold (%)",
     false},
    {"ata_smart_attributes", "ATA SMART 属性", "ATA SMART Attributes", false},
    {"ata_smart_attributes.table[]", "属性项", "Attribute Entry", false},
    {"ata_smart_attributes.table[].raw.hex", "原始十六进制", "Raw Hex", false},
    {"ata_smart_attributes.table[].flags.value", "标志位", "Flags Value", false},
});

Map build() {
    Map map;
    map.reserve(kKeyRows.size());
    for (const KeyRow& row : kKeyRows) {
        map.emplace(row.key, SMARTKeyDescriptor{row.key, row.chinese, row.english, row.shown});
    }
    return map;
}

// Length of the "[digits]" run at `offset` (which holds '['), or 0 when there is none.
std::size_t indexRunLength(std::string_view path, std::size_t offset) {
    std::size_t position = offset + 1;
    bool anyDigit = false;
    while (position < path.size()) {
        if (path[position] == ']') return anyDigit ? position + 1 - offset : 0;
        const auto c = text::nextCodePoint(path, position);
        if (!c || u_charType(static_cast<UChar32>(*c)) != U_DECIMAL_DIGIT_NUMBER) return 0;
        anyDigit = true;
    }
    return 0;
}

}  // namespace

const Map& entries() {
    // Never destroyed: descriptors handed out stay valid during exit too.
    static const Map* catalogue = new Map(build());
    return *catalogue;
}

std::string normalizedKeyPath(std::string_view keyPath) {
    std::string result;
    result.reserve(keyPath.size());
    std::size_t start = 0;
    for (std::size_t bracket = keyPath.find('['); bracket != std::string_view::npos;
         bracket = keyPath.find('[', bracket + 1)) {
        const std::size_t run = indexRunLength(keyPath, bracket);
        if (run == 0) continue;
        result.append(keyPath.substr(start, bracket - start)).append("[]");
        start = bracket + run;
        bracket = start - 1;
    }
    result.append(keyPath.substr(start));
    return result;
}

const SMARTKeyDescriptor* descriptor(std::string_view keyPath) {
    const auto& map = entries();
    const auto found = keyPath.find('[') == std::string_view::npos ? map.find(keyPath)
                                                                   : map.find(normalizedKeyPath(keyPath));
    return found == map.end() ? nullptr : &found->second;
}

}  // namespace SMARTKeyCatalogue
}  // namespace vantorix
