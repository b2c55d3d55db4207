#include "ui/QtMainExecutor.h"

#include <QCoreApplication>
#include <QMetaObject>

#include "concurrency/PendingWork.h"

namespace vantorix::ui {

QtMainExecutor::QtMainExecutor() : mainThread_(std::this_thread::get_id()), receiver_(new QObject()) {}

QtMainExecutor::~QtMainExecutor() { delete receiver_; }

void QtMainExecutor::post(std::function<void()> work) {
    if (!work) return;
    QMetaObject::invokeMethod(
        receiver_, [work = std::move(work)] { detail::runMainWork(work); }, Qt::QueuedConnection);
}

bool QtMainExecutor::isMainThread() const { return std::this_thread::get_id() == mainThread_; }

}  // namespace vantorix::ui
