#pragma once

#include <QObject>

#include <thread>

#include "concurrency/MainExecutor.h"

namespace vantorix::ui {

// The main thread of the desktop application: work posted from any thread runs in Qt's event
// loop, one item at a time, in the order posted. Work still queued when the executor is destroyed
// is dropped; destroy it only after the threads that post to it have stopped.
class QtMainExecutor final : public MainExecutor {
public:
    // Made on the thread that runs the event loop (where QApplication lives).
    QtMainExecutor();
    ~QtMainExecutor() override;

    void post(std::function<void()> work) override;
    bool isMainThread() const override;

private:
    std::thread::id mainThread_;
    QObject* const receiver_;  // lives on the main thread; queued calls run in its thread
};

}  // namespace vantorix::ui
