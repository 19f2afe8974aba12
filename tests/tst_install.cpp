// The installed program: executable and pictures side by side, and a
// launcher on the PATH that starts it from anywhere.
#include "testsupport.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

class tst_Install : public QObject
{
    Q_OBJECT

    QTemporaryDir prefix;

private slots:
    void initTestCase()
    {
        QProcess install;
        install.setProcessChannelMode(QProcess::MergedChannels);
        install.start(CMAKE_COMMAND_PATH, { "--install", BUILD_DIR, "--prefix", prefix.path() });
        QVERIFY(install.waitForFinished(120000));
        QVERIFY2(install.exitCode() == 0, install.readAll().constData());
    }

    void programAndPicturesAreSideBySide()
    {
        const QString folder = prefix.path() + "/lib/brivora";
        QVERIFY(QFileInfo(folder + "/brivora").isExecutable());
        for (const char *picture : { "brivora.png", "back/Picture_90.png", "pdf.png", "recored.png",
                                     "tiff.png", "icon/icon_snap_32.png", "icon/icon_webcam.png" })
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
                                          { { "VCAM_CAMERAS", "1" } }, 1500, 60000, launcher);
        QVERIFY2(run.finished && !run.crashed, qPrintable(run.output.right(2000)));
        QCOMPARE(run.exitCode, 0);
        // The program reports its own folder: the installed one.
        QVERIFY2(run.output.contains(QDir(prefix.path() + "/lib/brivora").canonicalPath()),
                 qPrintable(run.output.left(2000)));
        QVERIFY(QFile::exists(place.path() + "/work/system.ini"));
    }

    void desktopEntryNamesTheProgramInBothLanguages()
    {
        QFile entry(prefix.path() + "/share/applications/io.brivora.Brivora.desktop");
        QVERIFY(entry.open(QIODevice::ReadOnly | QIODevice::Text));
        const QStringList lines = QString::fromUtf8(entry.readAll()).split('\n');
        for (const char *line :
             { "Name=Brivora", "Name[zh_CN]=Brivora 文档拍摄", "Icon=io.brivora.Brivora",
               "Exec=brivora", "Categories=Graphics;Photography;Scanning;" })
            QVERIFY2(lines.contains(QString::fromUtf8(line)), line);
        for (const char *key : { "Comment=", "Comment[zh_CN]=", "Keywords=", "Keywords[zh_CN]=" }) {
            const QStringList found = lines.filter(
                    QRegularExpression("^" + QRegularExpression::escape(QString(key)) + "."));
            QVERIFY2(found.size() == 1, key);
        }
    }

    void applicationIconInEveryThemeSize()
    {
        const QString themes = prefix.path() + "/share/icons/hicolor/";
        for (int size : { 48, 64, 128, 256 }) {
            const QString png = themes + QString("%1x%1/apps/io.brivora.Brivora.png").arg(size);
            const QImage icon(png);
            QVERIFY2(!icon.isNull(), qPrintable(png));
            QCOMPARE(icon.size(), QSize(size, size));
            // Drawn on a tile: opaque in the middle, clear in the corner.
            QCOMPARE(qAlpha(icon.pixel(size / 2, size / 2)), 255);
            QCOMPARE(qAlpha(icon.pixel(0, 0)), 0);
        }
        QVERIFY(QFileInfo(themes + "scalable/apps/io.brivora.Brivora.svg").size() > 0);
    }

    void packageVersionFollowsTheProject()
    {
        // The project's version is the one source; the package's change log
        // and the AppStream release must carry it.
        QFile changelog(QString(BRIVORA_SOURCE_DIR) + "/debian/changelog");
        QVERIFY(changelog.open(QIODevice::ReadOnly | QIODevice::Text));
        const QString first = QString::fromUtf8(changelog.readLine()).trimmed();
        const QRegularExpressionMatch head =
                QRegularExpression("^brivora \\(([^)]+)\\) ").match(first);
        QVERIFY2(head.hasMatch(), qPrintable(first));
        QCOMPARE(head.captured(1), QString(BRIVORA_VERSION));

        QFile metainfo(prefix.path() + "/share/metainfo/io.brivora.Brivora.metainfo.xml");
        QVERIFY(metainfo.open(QIODevice::ReadOnly | QIODevice::Text));
        const QString xml = QString::fromUtf8(metainfo.readAll());
        QVERIFY(xml.contains("<id>io.brivora.Brivora</id>"));
        QVERIFY(xml.contains(QString("<release version=\"%1\"").arg(BRIVORA_VERSION)));
        QVERIFY(xml.contains("<content_rating type=\"oars-1.1\"/>"));
        QVERIFY(xml.contains("<screenshot type=\"default\">"));
    }
};

QTEST_GUILESS_MAIN(tst_Install)
#include "tst_install.moc"
