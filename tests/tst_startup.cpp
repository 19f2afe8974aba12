// Bringing the program up: the real executable run as a subprocess with the
// virtual camera, and the run-time lists it fills.
#include "cache.h"
#include "startup.h"
#include "testsupport.h"

#include <QDir>
#include <QFileInfo>
#include <QImageWriter>
#include <QMap>
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

// What the program left in its start-up report (see the preloaded helper):
// the pictures it showed and "key=value" lines.
struct StartupReport
{
    QImage splash;
    QImage logo;
    QMap<QString, QString> values;
};

StartupReport readStartupReport(const QString &folder)
{
    StartupReport report;
    report.splash = QImage(folder + "/splash.png");
    report.logo = QImage(folder + "/logo.png");
    QFile file(folder + "/report.txt");
    if (file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        for (const QString &line :
             QString::fromUtf8(file.readAll()).split('\n', Qt::SkipEmptyParts))
            report.values.insert(line.section('=', 0, 0), line.section('=', 1));
    }
    return report;
}

// Runs the program in place with a virtual camera and its start-up report
// asked for.
StartupReport startAndReport(const Place &place, ProgramRun &run)
{
    const QString folder = place.root.path() + "/report";
    QDir().mkpath(folder);
    run = runProgram(place.work(), place.home(),
                     { { "VCAM_CAMERAS", "1" }, { "BRIVORA_STARTUP_REPORT", folder } }, 2500);
    return readStartupReport(folder);
}

// True when two pictures hold the same pixels, whatever their formats.
bool samePixels(const QImage &a, const QImage &b)
{
    return !a.isNull() && a.size() == b.size()
            && a.convertToFormat(QImage::Format_ARGB32) == b.convertToFormat(QImage::Format_ARGB32);
}

bool sanitizerSpoke(const ProgramRun &run)
{
    return run.output.contains("runtime error") || run.output.contains("AddressSanitizer")
            || run.output.contains("LeakSanitizer");
}

} // namespace

class tst_Startup : public QObject
{
    Q_OBJECT

private slots:
    void noDeviceWarnsOnceAndExitsMinusOne()
    {
        Place place;
        const ProgramRun run =
                runProgram(place.work(), place.home(), { { "VCAM_NODES", "" } }, 0, 60000);
        QVERIFY2(run.finished, qPrintable(describe(run)));
        QVERIFY2(!run.crashed, qPrintable(describe(run)));
        // Ending by itself, without being asked to quit, means the event
        // loop never ran and no main window was built.
        QCOMPARE(run.exitCode, 255);
        QCOMPARE(run.boxes, QStringList{ noDeviceBox });
        // Qt's own button text speaks Chinese too, whatever the desktop's
        // language.
        QCOMPARE(run.boxButtons, QStringList{ QStringLiteral("确定") });
        // The settings record exists before the cameras are looked for.
        QVERIFY(QFile::exists(place.work() + "/system.ini"));
        QVERIFY(QDir(place.home() + "/Veltaro").exists());
        QVERIFY(run.output.contains("this is brivora program"));
    }

    void oneCameraStartsAndRunsUntilQuit()
    {
        Place place;
        const ProgramRun run =
                runProgram(place.work(), place.home(), { { "VCAM_CAMERAS", "1" } }, 2500);
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
        const ProgramRun run =
                runProgram(place.work(), place.home(), { { "VCAM_CAMERAS", "2" } }, 2500);
        QVERIFY2(run.finished && !run.crashed && run.exitCode == 0, qPrintable(describe(run)));
        QVERIFY(run.errorOutput.contains("this is brivora program"));
        // The debug lines stay; nothing that reads like a complaint may
        // reach the operator's terminal.
        static const QRegularExpression complaint("warning|error|fail|cannot|can't|unable|not "
                                                  "set|no matching|QObject::|QMetaObject::",
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
        ProgramRun run;
        const StartupReport report = startAndReport(place, run);
        QVERIFY2(run.finished && !run.crashed && run.exitCode == 0, qPrintable(describe(run)));
        QVERIFY2(!sanitizerSpoke(run), qPrintable(describe(run)));
        QVERIFY(QFile::exists(place.work() + "/system.ini"));
        QVERIFY(!QFile::exists(exeDir() + "/work/system.ini"));

        // The splash and the logo show the picture beside the executable.
        const QImage picture(exeDir() + "/Resources/brivora.png");
        QCOMPARE(picture.size(), QSize(480, 300));
        QVERIFY2(samePixels(report.splash, picture), "the splash holds the program's picture");
        QVERIFY2(!report.logo.isNull(), "the logo label holds a picture");
        QVERIFY(report.logo.width() <= picture.width());
        const QImage fitted =
                QPixmap::fromImage(picture)
                        .scaled(report.logo.size(), Qt::IgnoreAspectRatio, Qt::SmoothTransformation)
                        .toImage();
        QVERIFY2(samePixels(report.logo, fitted), "the logo is the program's picture, fitted");
        QCOMPARE(report.logo.width() * 300 / 480, report.logo.height());
    }

    void resourcesAreTakenRelativeToTheExecutable()
    {
        // A working directory with pictures of its own under the same
        // names: the program must not take them.
        Place place;
        QVERIFY(QDir().mkpath(place.work() + "/Resources/back"));
        QImage decoy(480, 300, QImage::Format_RGB32);
        decoy.fill(Qt::red);
        QVERIFY(decoy.save(place.work() + "/Resources/brivora.png"));
        QVERIFY(decoy.scaled(90, 90).save(place.work() + "/Resources/back/Picture_90.png"));

        ProgramRun run;
        const StartupReport report = startAndReport(place, run);
        QVERIFY2(run.finished && !run.crashed && run.exitCode == 0, qPrintable(describe(run)));
        // main sets the program's folder itself, from where it was started.
        QCOMPARE(report.values.value("exe_path"), exeDir());
        QVERIFY2(samePixels(report.splash, QImage(exeDir() + "/Resources/brivora.png")),
                 "the splash comes from beside the executable");
        QVERIFY2(!report.logo.isNull()
                         && report.logo.pixel(report.logo.width() / 2, report.logo.height() / 2)
                                 != QColor(Qt::red).rgb(),
                 "the logo is not the working directory's picture");

        // Every picture the program names lies under that folder +
        // "/Resources/".
        const QStringList pictures{ "/Resources/brivora.png",
                                    "/Resources/back/Picture_90.png",
                                    "/Resources/pdf.png",
                                    "/Resources/recored.png",
                                    "/Resources/tiff.png",
                                    "/Resources/icon/icon_oleft.png",
                                    "/Resources/icon/icon_oright.png",
                                    "/Resources/icon/icon_sync.png",
                                    "/Resources/icon/icon_toggle_16.png",
                                    "/Resources/icon/icon_webcam.png",
                                    "/Resources/icon/icon_snap_32.png",
                                    "/Resources/icon/icon_setting_32.png",
                                    "/Resources/icon/icon_snap_clock.png",
                                    "/Resources/icon/icon_video_32_line.png" };
        for (const QString &picture : pictures) {
            const QImage image(exeDir() + picture);
            QVERIFY2(!image.isNull(), qPrintable(picture));
            QVERIFY2(image.width() >= 16 && image.height() >= 16, qPrintable(picture));
        }
        QCOMPARE(QImage(exeDir() + "/Resources/back/Picture_90.png").size(), QSize(90, 90));
        QCOMPARE(QImage(exeDir() + "/Resources/icon/icon_snap_32.png").size(), QSize(32, 32));
        // The big buttons' style sheets address their pictures with a doubled
        // slash; the path must resolve as it stands.
        QVERIFY(QFile::exists(exeDir() + "/Resources/icon/" + "/icon_snap_32.png"));
    }

    void resolutionsHoldTwelveSizesInOrder()
    {
        // The list as main leaves it when the event loop starts: filled
        // once, in order.
        Place place;
        ProgramRun run;
        const StartupReport report = startAndReport(place, run);
        QVERIFY2(run.finished && !run.crashed && run.exitCode == 0, qPrintable(describe(run)));
        QVERIFY2(report.values.contains("resolutions"), qPrintable(describe(run)));
        QCOMPARE(report.values.value("resolutions").split(','),
                 QStringList({ "4640x3452", "4416x3312", "3742x2806", "3264x2448", "2592x1944",
                               "2048x1536", "1920x1080", "1600x1200", "1280x960", "1280x720",
                               "800x600", "640x480" }));

        // The helper main fills it with appends the same twelve.
        QList<QSize> sizes;
        appendOutputSizes(sizes);
        QCOMPARE(sizes.size(), 12);
        QCOMPARE(sizes.first(), QSize(4640, 3452));
        QCOMPARE(sizes.last(), QSize(640, 480));
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
        for (const char *format : { "jpg", "png", "bmp", "tiff", "webp" })
            QVERIFY2(formats.contains(format), format);
    }

    void oddIndexValuesStartWithoutCrash_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("value");
        for (const char *key : { "camera/index", "image/resolution", "image/out_resolution",
                                 "painting/main_resolution", "painting/other_resolution" }) {
            for (const char *value : { "-1", "999", "lots" })
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
        const ProgramRun run =
                runProgram(place.work(), place.home(), { { "VCAM_CAMERAS", "2" } }, 1500);
        QVERIFY2(run.finished && !run.crashed && run.exitCode == 0, qPrintable(describe(run)));
        QVERIFY2(!sanitizerSpoke(run), qPrintable(describe(run)));
        QVERIFY(run.boxes.isEmpty());
    }
};

QTEST_MAIN(tst_Startup)
#include "tst_startup.moc"
