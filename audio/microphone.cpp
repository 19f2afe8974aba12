#include "microphone.h"

#include "monotonicclock.h"

#include <QAudioDeviceInfo>
#include <QAudioFormat>
#include <QAudioInput>
#include <QIODevice>
#include <QThread>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <vector>

namespace {

QAudioFormat recordingFormat()
{
    QAudioFormat format;
    format.setSampleRate(Microphone::sampleRate);
    format.setChannelCount(1);
    format.setSampleSize(16);
    format.setSampleType(QAudioFormat::SignedInt);
    format.setByteOrder(QAudioFormat::LittleEndian);
    format.setCodec(QStringLiteral("audio/pcm"));
    return format;
}

QAudioDeviceInfo deviceNamed(const QString &name)
{
    if (!name.isEmpty()) {
        const auto devices = QAudioDeviceInfo::availableDevices(QAudio::AudioInput);
        for (const QAudioDeviceInfo &device : devices) {
            if (device.deviceName() == name)
                return device;
        }
    }
    return QAudioDeviceInfo::defaultInputDevice();
}

// Short blocks keep the arrival times, and so the sound's placement, close.
constexpr int blockMs = 20;

} // namespace

// Lives on the microphone's thread: owns the audio input there, so that
// its notifications and reads never touch the window's thread.
class MicrophoneWorker : public QObject
{
    Q_OBJECT

public:
    explicit MicrophoneWorker(Microphone *owner) : owner(owner) { }

public slots:
    bool open(const QString &name)
    {
        const QAudioDeviceInfo device = deviceNamed(name);
        const QAudioFormat format = recordingFormat();
        if (device.isNull() || !device.isFormatSupported(format))
            return false;
        input = new QAudioInput(device, format, this);
        input->setBufferSize(format.bytesForDuration(blockMs * 4 * 1000));
        connect(input, &QAudioInput::stateChanged, this, &MicrophoneWorker::stateChanged);
        source = input->start();
        if (!source || input->error() != QAudio::NoError) {
            close();
            return false;
        }
        connect(source, &QIODevice::readyRead, this, &MicrophoneWorker::readBlock);
        owner->running = true;
        return true;
    }

    void close()
    {
        if (input) {
            input->disconnect(this);
            input->stop();
            delete input;
        }
        input = nullptr;
        source = nullptr;
        owner->running = false;
        owner->currentLevel = 0.0f;
    }

private slots:
    void readBlock()
    {
        if (!source)
            return;
        const QByteArray bytes = source->readAll();
        const int64_t now = monotonicNs();
        const std::size_t count = std::size_t(bytes.size()) / sizeof(int16_t);
        if (count == 0)
            return;
        samples.resize(count);
        std::copy_n(bytes.constData(), count * sizeof(int16_t),
                    reinterpret_cast<char *>(samples.data()));
        int peak = 0;
        for (const int16_t s : samples)
            peak = std::max(peak, std::abs(int(s)));
        owner->currentLevel = float(peak) / 32768.0f;
        const int64_t firstNs = now - int64_t(count) * 1000000000 / Microphone::sampleRate;
        owner->sink(samples.data(), count, firstNs);
    }

    void stateChanged(QAudio::State state)
    {
        // Unplugged, or the sound system went away: the recording goes on
        // and the file gets silence instead.
        if (state == QAudio::StoppedState && input && input->error() != QAudio::NoError) {
            owner->running = false;
            owner->currentLevel = 0.0f;
        }
    }

private:
    Microphone *owner;
    QAudioInput *input = nullptr;
    QIODevice *source = nullptr;
    std::vector<int16_t> samples;
};

QStringList Microphone::inputNames()
{
    QStringList names;
    const auto devices = QAudioDeviceInfo::availableDevices(QAudio::AudioInput);
    for (const QAudioDeviceInfo &device : devices) {
        if (!names.contains(device.deviceName()))
            names << device.deviceName();
    }
    return names;
}

QString Microphone::resolve(const QString &saved)
{
    return !saved.isEmpty() && inputNames().contains(saved) ? saved : QString();
}

Microphone::Microphone(Sink sink, QObject *parent)
    : QObject(parent),
      sink(std::move(sink)),
      thread(new QThread),
      worker(new MicrophoneWorker(this))
{
    thread->setObjectName(QStringLiteral("microphone"));
    worker->moveToThread(thread);
    thread->start();
}

Microphone::~Microphone()
{
    stop();
    thread->quit();
    thread->wait();
    delete worker; // its thread has ended and its input is closed
    delete thread;
}

bool Microphone::start(const QString &deviceName)
{
    bool opened = false;
    QMetaObject::invokeMethod(
            worker, [this, deviceName] { return worker->open(deviceName); },
            Qt::BlockingQueuedConnection, &opened);
    return opened;
}

void Microphone::stop()
{
    if (thread->isRunning())
        QMetaObject::invokeMethod(
                worker, [this] { worker->close(); }, Qt::BlockingQueuedConnection);
}

#include "microphone.moc"
