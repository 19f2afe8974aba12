#include "testsupport.h"

#include "cache.h"

#include <QAbstractButton>
#include <QApplication>
#include <QDir>
#include <QFile>
#include <QMessageBox>
#include <QProcess>
#include <QTimer>

ModalAnswerer::ModalAnswerer(QObject *parent) : QObject(parent)
{
    auto *timer = new QTimer(this);
    connect(timer, &QTimer::timeout, this, &ModalAnswerer::poll);
    timer->start(20);
}

void ModalAnswerer::poll()
{
    auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
    if (!box || !box->isVisible())
        return;
    boxes.append({box->windowTitle(), box->text()});
    if (QAbstractButton *ok = box->button(QMessageBox::Ok))
        ok->click();
    else
        box->reject();
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
        {"camera/index", 0},
        {"camera/exposure", -3},
        {"image/fourcc", 0},
        {"image/resolution", 0},
        {"image/out_resolution", 3},
        {"image/codec", "jpg"},
        {"image/shooting_time", 5},
        {"image/quality", 80},
        {"save/type", 0},
        {"save/prefix", "IMG"},
        {"save/number", 1},
        {"save/playsound", true},
        {"save/merge_source", true},
        {"save/pdf_source", true},
        {"watermark/text", ""},
        {"watermark/time", false},
        {"watermark/color", "ff000000"},
        {"watermark/font_family", "Arial"},
        {"watermark/font_size", 100},
        {"watermark/font_styleName", "Regular"},
        {"watermark/strikeOut", false},
        {"watermark/underline", false},
        {"watermark/transparency", 50},
        {"watermark/x", 50},
        {"watermark/y", 50},
        {"painting/percentage", 30},
        {"painting/main_resolution", 5},
        {"painting/other_resolution", 5},
        {"user/documentsLocation", documentsFolder},
    };
}

void clearVirtualCameraEnvironment()
{
    for (const QString &key : QProcessEnvironment::systemEnvironment().keys()) {
        if (key.startsWith("VCAM_"))
            qunsetenv(key.toLocal8Bit().constData());
    }
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
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program.isEmpty() ? QString(BRIVORA_EXE) : program, QStringList());

    ProgramRun run;
    run.finished = process.waitForFinished(timeoutMs);
    if (!run.finished) {
        process.kill();
        process.waitForFinished(5000);
    }
    run.crashed = process.exitStatus() == QProcess::CrashExit;
    run.exitCode = process.exitCode();
    run.output = QString::fromUtf8(process.readAll());

    QFile log(modalLog);
    if (log.open(QIODevice::ReadOnly | QIODevice::Text)) {
        const QString text = QString::fromUtf8(log.readAll());
        run.boxes = text.split('\n', Qt::SkipEmptyParts);
    }
    return run;
}

void useNumberedOutput(const QString &folder)
{
    Config *c = Cache::config;
    c->user_documentsLocation = folder;
    c->save_type = 0;
    c->save_prefix = "IMG";
    c->save_number = 1;
    c->image_codec = "jpg";
    c->image_quality = 95;
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
