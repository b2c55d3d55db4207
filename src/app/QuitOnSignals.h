#pragma once

#include <QObject>

#include <initializer_list>

class QSocketNotifier;

namespace vantorix::app {

// Turns the signals it is given (the app: SIGTERM, SIGINT, SIGHUP, SIGQUIT) into an orderly
// QCoreApplication::quit(): the handler only writes a byte into a socket pair, and the event loop
// reads it and quits, so the application's destructors run (monitoring stops, a running test
// removes its files) instead of the process dying where it stands. One instance per process; the
// default actions come back when it goes.
class QuitOnSignals final : public QObject {
    Q_OBJECT
public:
    explicit QuitOnSignals(std::initializer_list<int> signals, QObject* parent = nullptr);
    ~QuitOnSignals() override;
    QuitOnSignals(const QuitOnSignals&) = delete;
    QuitOnSignals& operator=(const QuitOnSignals&) = delete;

    // The last signal that asked to quit, or 0.
    int received() const { return received_; }

private:
    void drain();

    QSocketNotifier* notifier_ = nullptr;
    int received_ = 0;
};

}  // namespace vantorix::app
