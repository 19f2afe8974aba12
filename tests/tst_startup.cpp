// Bringing the program up: the real executable run as a subprocess with the
// virtual camera, and the run-time lists it fills.
#include "cache.h"
#include "startup.h"
#include "testsupport.h"

#include <QDir>
#include <QFileInfo>
#include <QImageWriter>
#include <QPixmap>
#include <QRegularExpression>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const QString noDeviceBox = QStringLiteral("警告\t未检测到设备，请检查设备是否已经连接！");

QString exeDir()
{
    return QFileInfo(BRIVORA_EXE).absolutePath();
}

// A fresh working directory and home for one run of the program.
struct Place
{
    QTemporaryDir root;
    QString work() const { return root.path() + "/work"; }
    QString home() const { return root.path() + "/home"; }
    Place()
    {
        QDir().mkpath(work());
        QDir().mkpath(home());
    }
};

QString describe(const ProgramRun &run)
{
    return QString("exit %1 crashed %2 finished %3 boxes [%4]\n%5")
        .arg(run.exitCode)
        .arg(run.crashed)
        .arg(run.finished)
        .arg(run.boxes.join(" | "))
        .arg(run.output.right(3000));
}

bool sanitizerSpoke(const ProgramRun &run)
{
    return run.output.contains("runtime error") || run.output.contains("AddressSanitizer")
           || run.output.contains("LeakSanitizer");
}

} // namespace

class TestStartup : public QObject
{
    Q_OBJECT

private slots:
    void noDeviceWarnsOnceAndExitsMinusOne()
    {
        Place place;
        const ProgramRun run = runProgram(place.work(), place.home(), {{"VCAM_NODES", ""}}, 0, 60000);
        QVERIFY2(run.finished, qPrintable(describe(run)));
        QVERIFY2(!run.crashed, qPrintable(describe(run)));
        // Ending by itself, without being asked to quit, means the event
        // loop never ran and no main window was built.
        QCOMPARE(run.exitCode, 255);
        QCOMPARE(run.boxes, QStringList{noDeviceBox});
        // Qt's own button text speaks Chinese too, whatever the desktop's
        // language.
        QCOMPARE(run.boxButtons, QStringList{QStringLiteral("确定")});
        // The settings record exists before the cameras are looked for.
        QVERIFY(QFile::exists(place.work() + "/system.ini"));
        QVERIFY(QDir(place.home() + "/Veltaro").exists());
        QVERIFY(run.output.contains("this is brivora program"));
    }

    void oneCameraStartsAndRunsUntilQuit()
    {
        Place place;
        const ProgramRun run = runProgram(place.work(), place.home(), {{"VCAM_CAMERAS", "1"}}, 2500);
        QVERIFY2(run.finished && !run.crashed, qPrintable(describe(run)));
        QCOMPARE(run.exitCode, 0);
        QVERIFY(run.boxes.isEmpty());
        QVERIFY(!sanitizerSpoke(run));
        QVERIFY(run.output.contains("Driver    Name: %s\n"));
        QVERIFY(run.output.contains(exeDir()));
    }

    void normalStartPrintsNothingErrorLike()
    {
        Place place;
        const ProgramRun run = runProgram(place.work(), place.home(), {{"VCAM_CAMERAS", "2"}}, 2500);
        QVERIFY2(run.finished && !run.crashed && run.exitCode == 0, qPrintable(describe(run)));
        QVERIFY(run.errorOutput.contains("this is brivora program"));
        // The debug lines stay; nothing that reads like a complaint may
        // reach the operator's terminal.
        static const QRegularExpression complaint(
            "warning|error|fail|cannot|can't|unable|not set|no matching|QObject::|QMetaObject::",
            QRegularExpression::CaseInsensitiveOption);
        // Discovery's debug line for the first missing node marks the end of
        // the camera list; it is a report, not a complaint.
        static const QRegularExpression endOfList("^open \"/dev/video\\d+\" error$");
        int endsOfList = 0;
        for (const QString &line : run.errorOutput.split('\n', Qt::SkipEmptyParts)) {
            if (endOfList.match(line).hasMatch()) {
                ++endsOfList;
                continue;
            }
            QVERIFY2(!complaint.match(line).hasMatch(), qPrintable(line));
        }
        QCOMPARE(endsOfList, 1);
    }

    void startedElsewhereFindsResourcesAndUsesItsOwnSettings()
    {
        Place place;
        QVERIFY(place.work() != exeDir());
        const ProgramRun run = runProgram(place.work(), place.home(), {{"VCAM_CAMERAS", "2"}}, 2500);
        QVERIFY2(run.finished && !run.crashed && run.exitCode == 0, qPrintable(describe(run)));
        QVERIFY(QFile::exists(place.work() + "/system.ini"));
        QVERIFY(!sanitizerSpoke(run));
    }

    void resourcesAreTakenRelativeToTheExecutable()
    {
        // Whatever the working directory, every picture the program names
        // lies under the executable's folder + "/Resources/".
        QVERIFY(QDir::currentPath() != exeDir());
        const QStringList pictures{
            "/Resources/brivora.png",           "/Resources/back/Picture_90.png",
            "/Resources/pdf.png",               "/Resources/recored.png",
            "/Resources/tiff.png",              "/Resources/icon/icon_oleft.png",
            "/Resources/icon/icon_oright.png",  "/Resources/icon/icon_sync.png",
            "/Resources/icon/icon_toggle_16.png", "/Resources/icon/icon_webcam.png",
            "/Resources/icon/icon_snap_32.png", "/Resources/icon/icon_setting_32.png",
            "/Resources/icon/icon_snap_clock.png", "/Resources/icon/icon_video_32_line.png"};
        for (const QString &picture : pictures) {
            const QImage image(exeDir() + picture);
            QVERIFY2(!image.isNull(), qPrintable(picture));
            QVERIFY2(image.width() >= 16 && image.height() >= 16, qPrintable(picture));
        }
        QCOMPARE(QImage(exeDir() + "/Resources/brivora.png").size(), QSize(480, 300));
        QCOMPARE(QImage(exeDir() + "/Resources/back/Picture_90.png").size(), QSize(90, 90));
        QCOMPARE(QImage(exeDir() + "/Resources/icon/icon_snap_32.png").size(), QSize(32, 32));
        // The big buttons' style sheets address their pictures with a doubled
        // slash; the path must resolve as it stands.
        QVERIFY(QFile::exists(exeDir() + "/Resources/icon/" + "/icon_snap_32.png"));
    }

    void resolutionsHoldTwelveSizesInOrder()
    {
        QList<QSize> sizes;
        appendOutputSizes(sizes);
        const QList<QSize> expected{QSize(4640, 3452), QSize(4416, 3312), QSize(3742, 2806),
                                    QSize(3264, 2448), QSize(2592, 1944), QSize(2048, 1536),
                                    QSize(1920, 1080), QSize(1600, 1200), QSize(1280, 960),
                                    QSize(1280, 720),  QSize(800, 600),   QSize(640, 480)};
        QCOMPARE(sizes, expected);
    }

    void writableFormatsFollowTheImageWriter()
    {
        QList<QString> formats;
        appendWritableFormats(formats);
        const QList<QByteArray> supported = QImageWriter::supportedImageFormats();
        QCOMPARE(formats.size(), supported.size());
        for (int i = 0; i < formats.size(); ++i)
            QCOMPARE(formats[i], QString(supported[i]));
        // The image formats plugins must be installed: TIFF and WebP photos
        // are written through them.
        for (const char *format : {"jpg", "png", "bmp", "tiff", "webp"})
            QVERIFY2(formats.contains(format), format);
    }

    void oddIndexValuesStartWithoutCrash_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("value");
        for (const char *key : {"camera/index", "image/resolution", "image/out_resolution",
                                "painting/main_resolution", "painting/other_resolution"}) {
            for (const char *value : {"-1", "999", "lots"})
                QTest::newRow(qPrintable(QString("%1=%2").arg(key, value))) << key << value;
        }
    }

    void oddIndexValuesStartWithoutCrash()
    {
        QFETCH(QString, key);
        QFETCH(QString, value);
        Place place;
        {
            QSettings settings(place.work() + "/system.ini", QSettings::IniFormat);
            settings.setValue("image/quality", 80);
            settings.setValue("user/documentsLocation", place.home() + "/out");
            settings.setValue(key, value);
        }
        const ProgramRun run = runProgram(place.work(), place.home(), {{"VCAM_CAMERAS", "2"}}, 1500);
        QVERIFY2(run.finished && !run.crashed && run.exitCode == 0, qPrintable(describe(run)));
        QVERIFY2(!sanitizerSpoke(run), qPrintable(describe(run)));
        QVERIFY(run.boxes.isEmpty());
    }
};

QTEST_MAIN(TestStartup)
#include "tst_startup.moc"
