// The installed program: executable and pictures side by side, and a
// launcher on the PATH that starts it from anywhere.
#include "testsupport.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

class TestInstall : public QObject
{
    Q_OBJECT

    QTemporaryDir prefix;

private slots:
    void initTestCase()
    {
        QProcess install;
        install.setProcessChannelMode(QProcess::MergedChannels);
        install.start(CMAKE_COMMAND_PATH, {"--install", BUILD_DIR, "--prefix", prefix.path()});
        QVERIFY(install.waitForFinished(120000));
        QVERIFY2(install.exitCode() == 0, install.readAll().constData());
    }

    void programAndPicturesAreSideBySide()
    {
        const QString folder = prefix.path() + "/lib/brivora";
        QVERIFY(QFileInfo(folder + "/brivora").isExecutable());
        for (const char *picture : {"brivora.png", "back/Picture_90.png", "pdf.png", "recored.png",
                                    "tiff.png", "icon/icon_snap_32.png", "icon/icon_webcam.png"})
            QVERIFY2(!QImage(folder + "/Resources/" + picture).isNull(), picture);
        // Only pictures are installed, no sources or build files.
        QDirIterator it(folder + "/Resources", QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot,
                        QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QFileInfo entry(it.next());
            QVERIFY2(entry.isDir() ? entry.fileName() == "icon" || entry.fileName() == "back"
                                   : entry.suffix() == "png",
                     qPrintable(entry.filePath()));
        }
    }

    void launcherStartsTheInstalledProgram()
    {
        const QString launcher = prefix.path() + "/bin/brivora";
        QVERIFY(QFileInfo(launcher).isExecutable());
        QTemporaryDir place;
        QDir().mkpath(place.path() + "/work");
        QDir().mkpath(place.path() + "/home");
        const ProgramRun run = runProgram(place.path() + "/work", place.path() + "/home",
                                          {{"VCAM_CAMERAS", "1"}}, 1500, 60000, launcher);
        QVERIFY2(run.finished && !run.crashed, qPrintable(run.output.right(2000)));
        QCOMPARE(run.exitCode, 0);
        // The program reports its own folder: the installed one.
        QVERIFY2(run.output.contains(QDir(prefix.path() + "/lib/brivora").canonicalPath()),
                 qPrintable(run.output.left(2000)));
        QVERIFY(QFile::exists(place.path() + "/work/system.ini"));
    }
};

QTEST_GUILESS_MAIN(TestInstall)
#include "tst_install.moc"
