#pragma once

#include <QGridLayout>
#include <QLabel>
#include <QWidget>

#include <vector>

#include "benchmark/PerformanceMetrics.h"

namespace vantorix::ui {

// The performance test's progress while it runs and its result afterwards: a heading, the payload,
// the items (symbol, title, value; highlighted, normal or placeholder) and a payload warning.
class PerformanceMetricsStrip final : public QWidget {
    Q_OBJECT
public:
    explicit PerformanceMetricsStrip(QWidget* parent = nullptr);
    void setContent(const MetricItem& heading, const std::string& payloadDescription,
                    const std::vector<MetricItem>& items, const std::optional<std::string>& warning);
    // "title: value" of each item shown, for tests and accessibility.
    QStringList itemTexts() const;
    QString warningText() const { return warningRow_->isHidden() ? QString() : warning_->text(); }

private:
    QLabel* heading_;
    QLabel* payload_;
    QWidget* itemsBox_;
    QGridLayout* items_;
    QWidget* warningRow_;
    QLabel* warningSymbol_;
    QLabel* warning_;
    std::vector<MetricItem> shownItems_;
    std::optional<std::string> shownWarning_;
};

}  // namespace vantorix::ui
