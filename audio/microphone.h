#ifndef MICROPHONE_H
#define MICROPHONE_H

#include <QObject>
#include <QString>
#include <QStringList>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>

class QThread;
class MicrophoneWorker;

// The microphone of a recording: 16-bit mono sound at 48 kHz from Qt's
// audio input, read on a thread of its own so that neither the window nor
// the capture loop ever waits for the sound system. Each block read is
// handed to the sink with the monotonic time of its first sample.
class Microphone : public QObject
{
    Q_OBJECT

public:
    using Sink = std::function<void(const int16_t *samples, std::size_t count, int64_t firstNs)>;

    static constexpr int sampleRate = 48000;

    // The input devices the sound system lists, by name.
    static QStringList inputNames();
    // The device to open for a saved name: the name itself while such a
    // device exists, otherwise empty (the system's default).
    static QString resolve(const QString &saved);

    explicit Microphone(Sink sink, QObject *parent = nullptr);
    ~Microphone() override;

    // Opens the device (empty: the default) and starts reading. False when
    // there is no microphone or the sound system does not answer.
    bool start(const QString &deviceName);
    void stop();

    // Loudness of the latest block, 0 (silence) to 1 (full scale).
    float level() const { return currentLevel.load(); }
    // Whether the device is still delivering (false once it is gone).
    bool isRunning() const { return running.load(); }

private:
    friend class MicrophoneWorker;

    Sink sink;
    QThread *thread;
    MicrophoneWorker *worker;
    std::atomic<float> currentLevel{ 0.0f };
    std::atomic<bool> running{ false };
};

#endif // MICROPHONE_H
