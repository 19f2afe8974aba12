#include "testsupport.h"

#include "activebox.h"
#include "cache.h"
#include "camerainfo.h"
#include "startup.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTimer>

#include <opencv2/imgproc.hpp>

ModalAnswerer::ModalAnswerer(QObject *parent) : QObject(parent)
{
    auto *timer = new QTimer(this);
    connect(timer, &QTimer::timeout, this, &ModalAnswerer::poll);
    timer->start(20);
}

void ModalAnswerer::poll()
{
    if (const std::optional<ShownBox> box = answerShownBox())
        boxes.append({ box->title, box->text });
}

QProcessEnvironment cleanEnvironment()
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const QString &key : env.keys()) {
        if (key.startsWith("VCAM_"))
            env.remove(key);
    }
    return env;
}

QMap<QString, QString> readVirtualCameraState(const QString &dir, int node)
{
    QMap<QString, QString> values;
    QFile file(QDir(dir).filePath(QString("video%1.state").arg(node)));
    if (!file.open(QIODevice::ReadOnly))
        return values;
    const QStringList lines = QString::fromUtf8(file.readAll()).split('\n', Qt::SkipEmptyParts);
    for (const QString &line : lines)
        values.insert(line.section('=', 0, 0), line.section('=', 1));
    return values;
}

QList<QPair<QString, QVariant>> factorySettings(const QString &documentsFolder)
{
    return {
        { "camera/index", 0 },
        { "camera/exposure", -3 },
        { "image/fourcc", 0 },
        { "image/resolution", 0 },
        { "image/out_resolution", 3 },
        { "image/codec", "jpg" },
        { "image/shooting_time", 5 },
        { "image/quality", 80 },
        { "save/type", 0 },
        { "save/prefix", "IMG" },
        { "save/number", 1 },
        { "save/playsound", true },
        { "save/merge_source", true },
        { "save/pdf_source", true },
        { "watermark/text", "" },
        { "watermark/time", false },
        { "watermark/color", "ff000000" },
        { "watermark/font_family", "Arial" },
        { "watermark/font_size", 100 },
        { "watermark/font_styleName", "Regular" },
        { "watermark/strikeOut", false },
        { "watermark/underline", false },
        { "watermark/transparency", 50 },
        { "watermark/x", 50 },
        { "watermark/y", 50 },
        { "painting/percentage", 30 },
        { "painting/main_resolution", 5 },
        { "painting/other_resolution", 5 },
        { "user/documentsLocation", documentsFolder },
    };
}

void clearVirtualCameraEnvironment()
{
    for (const QString &key : QProcessEnvironment::systemEnvironment().keys()) {
        if (key.startsWith("VCAM_"))
            qunsetenv(key.toLocal8Bit().constData());
    }
}

void useFirstCamera()
{
    Cache::cameras->clear();
    Cache::config->camera_index = 0;
    Cache::config->image_resolution = 0;
    Cache::config->image_fourcc = 0;
}

void discoverCamera(const char *formats, const char *sizes)
{
    qputenv("VCAM_0_FORMATS", formats);
    qputenv("VCAM_0_SIZES", sizes);
    *Cache::cameras = CameraInfo::discover();
}

void prepareCameraTests()
{
    preferVideo4Linux2Capture();
    if (Cache::config->resolutions.isEmpty())
        appendOutputSizes(Cache::config->resolutions);
}

void prepareWindowTests()
{
    prepareCameraTests();
    Cache::config->exe_path = QFileInfo(QStringLiteral(BRIVORA_EXE)).absolutePath();
}

void resetWindowSettings(const QString &documents)
{
    Cache::config->init();
    Cache::config->camera_index = 0;
    if (!documents.isNull())
        Cache::config->user_documentsLocation = documents;
    Cache::config->image_out_resolution = 11; // 640x480
    Cache::config->isSaveTiff = false;
    Cache::cameras->clear();
}

ProgramRun runProgram(const QString &workDir, const QString &home,
                      const QMap<QString, QString> &vcam, int quitAfterMs, int timeoutMs,
                      const QString &program)
{
    QProcessEnvironment env = cleanEnvironment();
    for (auto it = vcam.constBegin(); it != vcam.constEnd(); ++it)
        env.insert(it.key(), it.value());

    const QString modalLog = QDir(workDir).absoluteFilePath(".modal-boxes.log");
    QFile::remove(modalLog);
    env.insert("LD_PRELOAD", QString(VIRTUALCAM_LIB) + ":" + QString(MODALANSWER_LIB));
    env.insert("BRIVORA_MODAL_LOG", modalLog);
    env.insert("HOME", home);
    env.insert("QT_QPA_PLATFORM", "offscreen");
    if (quitAfterMs > 0)
        env.insert("BRIVORA_QUIT_AFTER_MS", QString::number(quitAfterMs));
    else
        env.remove("BRIVORA_QUIT_AFTER_MS");

    QProcess process;
    process.setProcessEnvironment(env);
    process.setWorkingDirectory(workDir);
    process.start(program.isEmpty() ? QString(BRIVORA_EXE) : program, QStringList());

    ProgramRun run;
    run.finished = process.waitForFinished(timeoutMs);
    if (!run.finished) {
        process.kill();
        process.waitForFinished(5000);
    }
    run.crashed = process.exitStatus() == QProcess::CrashExit;
    run.exitCode = process.exitCode();
    run.errorOutput = QString::fromUtf8(process.readAllStandardError());
    run.output = QString::fromUtf8(process.readAllStandardOutput()) + run.errorOutput;

    QFile log(modalLog);
    if (log.open(QIODevice::ReadOnly | QIODevice::Text)) {
        const QString text = QString::fromUtf8(log.readAll());
        for (const QString &line : text.split('\n', Qt::SkipEmptyParts)) {
            const QStringList fields = line.split('\t');
            run.boxes << fields.mid(0, 2).join('\t');
            run.boxButtons << fields.value(2);
        }
    }
    return run;
}

bool CameraFolders::makeFresh()
{
    clearVirtualCameraEnvironment();
    m_state.reset(new QTemporaryDir);
    m_documents.reset(new QTemporaryDir);
    m_scratch.reset(new QTemporaryDir);
    if (!m_state->isValid() || !m_documents->isValid() || !m_scratch->isValid())
        return false;
    qputenv("VCAM_STATE_DIR", m_state->path().toLocal8Bit());
    return true;
}

QMap<QString, QString> CameraFolders::state(int node) const
{
    return readVirtualCameraState(m_state->path(), node);
}

QString CameraFolders::stateValue(int node, const char *key) const
{
    return state(node).value(key);
}

int CameraFolders::stateNumber(int node, const char *key) const
{
    return stateValue(node, key).toInt();
}

QStringList CameraFolders::documents() const
{
    return QDir(m_documents->path()).entryList(QDir::Files, QDir::Name);
}

QString CameraFolders::document(const QString &name) const
{
    return QDir(m_documents->path()).filePath(name);
}

int readPageNumber(const cv::Mat &picture)
{
    if (picture.empty())
        return -1;
    cv::Mat grey = picture;
    if (picture.channels() == 3)
        cv::cvtColor(picture, grey, cv::COLOR_BGR2GRAY);
    const auto mean = [&](double x0, double y0, double x1, double y1) {
        const cv::Rect r(cv::Point(int(x0 * grey.cols), int(y0 * grey.rows)),
                         cv::Point(int(x1 * grey.cols), int(y1 * grey.rows)));
        return cv::mean(grey(r))[0];
    };
    const auto darkest = [&](double x0, double y0, double x1, double y1) {
        const cv::Rect r(cv::Point(int(x0 * grey.cols), int(y0 * grey.rows)),
                         cv::Point(int(x1 * grey.cols), int(y1 * grey.rows)));
        double lo = 0;
        cv::minMaxLoc(grey(r), &lo);
        return lo;
    };
    // Bare paper just above and below the blocks: no hand over them.
    if (darkest(0.27, 0.625, 0.73, 0.655) < 150 || darkest(0.27, 0.765, 0.73, 0.795) < 150)
        return -1;
    const double pitch = 0.42 / 8;
    int number = 0;
    for (int i = 0; i < 8; ++i) {
        const double cx = 0.29 + (i + 0.5) * pitch;
        const double m = mean(cx - 0.008, 0.70, cx + 0.008, 0.72);
        number <<= 1;
        if (m < 110)
            number |= 1;
        else if (m < 180)
            return -1;
    }
    return number;
}

GapMeter::GapMeter(QObject *parent) : QObject(parent)
{
    connect(&timer, &QTimer::timeout, this, [this] {
        if (clock.isValid())
            longest = qMax(longest, clock.elapsed());
        clock.restart();
    });
    timer.start(10);
}

qint64 heldFor(const std::function<void()> &call)
{
    QElapsedTimer clock;
    clock.start();
    call();
    return clock.elapsed();
}

bool underEmulation()
{
    return qEnvironmentVariableIsSet("BRIVORA_EMULATED");
}

QImage filledImage(int width, int height, QColor colour, QImage::Format format)
{
    QImage image(width, height, format);
    image.fill(colour);
    return image;
}
