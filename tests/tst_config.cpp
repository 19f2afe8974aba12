// The settings record and its file "system.ini" in the working directory.
#include "cache.h"
#include "config.h"
#include "testsupport.h"

#include <QDir>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

namespace {

QString defaultFolder()
{
    return QDir::homePath() + "/Veltaro";
}

// Writes a settings file holding every key with its default except those in
// `skip`, and with `overrides` on top.
void writeSettings(const QString &path, const QStringList &skip = {},
                   const QMap<QString, QVariant> &overrides = {})
{
    QSettings settings(path, QSettings::IniFormat);
    for (const auto &key : factorySettings(defaultFolder())) {
        if (skip.contains(key.first))
            continue;
        settings.setValue(key.first, overrides.value(key.first, key.second));
    }
}

QByteArray readAll(const QString &path)
{
    QFile file(path);
    file.open(QIODevice::ReadOnly);
    return file.readAll();
}

// Runs each case in a fresh working directory of its own.
class WorkingDirectory
{
public:
    WorkingDirectory() : previous(QDir::currentPath()) { QDir::setCurrent(dir.path()); }
    ~WorkingDirectory() { QDir::setCurrent(previous); }
    QString path() const { return dir.path(); }

private:
    QTemporaryDir dir;
    QString previous;
};

} // namespace

class tst_Config : public QObject
{
    Q_OBJECT

private slots:
    void settingsExistBeforeMain()
    {
        // The record is made during static initialisation, in the working
        // directory the process started in.
        QVERIFY(Cache::config != nullptr);
        QVERIFY(QFile::exists("system.ini"));
        QCOMPARE(Cache::config->image_quality, 80);
        QVERIFY(QDir(defaultFolder()).exists());
    }

    void firstStartWritesDefaults()
    {
        WorkingDirectory wd;
        QVERIFY(!QFile::exists("system.ini"));
        Config config;
        QVERIFY(QFile::exists(wd.path() + "/system.ini"));

        QSettings file(wd.path() + "/system.ini", QSettings::IniFormat);
        QCOMPARE(file.allKeys().size(), 29);
        for (const auto &key : factorySettings(defaultFolder())) {
            QVERIFY2(file.contains(key.first), qPrintable(key.first));
            QCOMPARE(file.value(key.first).toString(), key.second.toString());
        }
        QVERIFY(!file.contains("watermark/font_strikeOut"));
        QVERIFY(!file.contains("watermark/font_underline"));

        QCOMPARE(config.image_quality, 80);
        QCOMPARE(config.watermark_font_family, QString("Arial"));
        QCOMPARE(config.watermark_color, QString("ff000000"));
        QCOMPARE(config.watermark_font_size, 100);
        QCOMPARE(config.watermark_font_styleName, QString("Regular"));
        QCOMPARE(config.camera_exposure, -3);
        QCOMPARE(config.image_out_resolution, 3);
        QCOMPARE(config.user_documentsLocation, defaultFolder());
        QCOMPARE(config.ini_path, QString("system.ini"));
    }

    void firstStartLeavesRunTimeMembersEmpty()
    {
        WorkingDirectory wd;
        Config config;
        QCOMPARE(config.isSaveTiff, false);
        QCOMPARE(config.isLinuxOS, false);
        QVERIFY(config.exe_path.isNull());
        QVERIFY(config.resolutions.isEmpty());
        QVERIFY(config.iamge_formats.isEmpty());
    }

    void keysAreWrittenInGroups()
    {
        WorkingDirectory wd;
        Config config;
        const QByteArray text = readAll("system.ini");
        for (const char *group :
             { "[camera]", "[image]", "[save]", "[watermark]", "[painting]", "[user]" })
            QVERIFY2(text.contains(group), group);
        QVERIFY(text.contains("quality=80"));
        QVERIFY(text.contains("strikeOut=false"));
    }

    void missingKeyReadsZeroAndFileIsNotCompleted()
    {
        WorkingDirectory wd;
        writeSettings("system.ini", { "image/quality" });
        const QByteArray before = readAll("system.ini");

        Config config;
        QCOMPARE(config.image_quality, 0);
        QCOMPARE(config.image_codec, QString("jpg"));
        QCOMPARE(readAll("system.ini"), before);
    }

    void missingStringAndBoolKeysReadEmptyAndFalse()
    {
        WorkingDirectory wd;
        writeSettings("system.ini", { "watermark/font_family", "save/playsound" });
        Config config;
        QVERIFY(config.watermark_font_family.isEmpty());
        QCOMPARE(config.save_playsound, false);
    }

    void textExposureReadsZero()
    {
        WorkingDirectory wd;
        writeSettings("system.ini", {}, { { "camera/exposure", "bright" } });
        Config config;
        QCOMPARE(config.camera_exposure, 0);
    }

    void storedValuesAreKeptAsRead()
    {
        WorkingDirectory wd;
        writeSettings("system.ini", {},
                      { { "camera/index", 999 },
                        { "image/out_resolution", -1 },
                        { "save/prefix", "DOC" },
                        { "watermark/strikeOut", true } });
        Config config;
        QCOMPARE(config.camera_index, 999);
        QCOMPARE(config.image_out_resolution, -1);
        QCOMPARE(config.save_prefix, QString("DOC"));
        QCOMPARE(config.watermark_font_strikeOut, true);
    }

    void otherWorkingDirectoryUsesOtherFile()
    {
        {
            WorkingDirectory first;
            writeSettings("system.ini", {}, { { "save/prefix", "FIRST" } });
            Config config;
            QCOMPARE(config.save_prefix, QString("FIRST"));
        }
        WorkingDirectory second;
        Config config;
        QCOMPARE(config.save_prefix, QString("IMG"));
        QVERIFY(QFile::exists(second.path() + "/system.ini"));
    }

    void outputFolderIsCreatedWithParents()
    {
        WorkingDirectory wd;
        const QString folder = wd.path() + "/a/b/c/photos";
        writeSettings("system.ini", {}, { { "user/documentsLocation", folder } });
        QVERIFY(!QDir(wd.path() + "/a").exists());
        Config config;
        QCOMPARE(config.user_documentsLocation, folder);
        QVERIFY(QDir(folder).exists());
    }

    void uncreatableOutputFolderPassesSilently()
    {
        WorkingDirectory wd;
        QFile blocker("blocker");
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        writeSettings("system.ini", {},
                      { { "user/documentsLocation", wd.path() + "/blocker/sub" } });
        Config config;
        QVERIFY(!QDir(wd.path() + "/blocker/sub").exists());
        QCOMPARE(config.save_prefix, QString("IMG"));
    }

    void saveWritesEveryMemberAndLoadReadsItBack()
    {
        WorkingDirectory wd;
        {
            Config config;
            config.camera_index = 2;
            config.image_codec = "png";
            config.save_number = 41;
            config.save_pdf_source = false;
            config.watermark_text = "机密";
            config.watermark_font_underline = true;
            config.painting_other_resolution = 7;
            config.user_documentsLocation = wd.path() + "/out";
            config.save();
        }
        Config config;
        QCOMPARE(config.camera_index, 2);
        QCOMPARE(config.image_codec, QString("png"));
        QCOMPARE(config.save_number, 41);
        QCOMPARE(config.save_pdf_source, false);
        QCOMPARE(config.watermark_text, QString("机密"));
        QCOMPARE(config.watermark_font_underline, true);
        QCOMPARE(config.painting_other_resolution, 7);
        QVERIFY(QDir(wd.path() + "/out").exists());
    }

    void initRestoresDefaultsButKeepsCameraAndFolder()
    {
        WorkingDirectory wd;
        Config config;
        config.camera_index = 3;
        config.user_documentsLocation = "/somewhere";
        config.image_quality = 12;
        config.watermark_font_family = "Serif";
        config.painting_percentage = 90;
        config.isSaveTiff = true;
        const QByteArray before = readAll("system.ini");

        config.init();
        QCOMPARE(config.camera_index, 3);
        QCOMPARE(config.user_documentsLocation, QString("/somewhere"));
        QCOMPARE(config.image_quality, 80);
        QCOMPARE(config.watermark_font_family, QString("Arial"));
        QCOMPARE(config.painting_percentage, 30);
        QCOMPARE(config.isSaveTiff, true);
        QCOMPARE(readAll("system.ini"), before);
    }

    // ------------------------------------------------------------ extensions

    void firstRunFileHasNoExtensionGroup()
    {
        WorkingDirectory wd;
        Config config;
        QVERIFY(!readAll("system.ini").contains("[extra]"));
        QCOMPARE(config.perspective_correction, false);
        QCOMPARE(config.shooting_mode, int(ShootingModeInterval));
        QCOMPARE(config.pdf_ocr, false);
    }

    void extensionKeyIsWrittenOnlyWhileItDiffersFromItsDefault()
    {
        WorkingDirectory wd;
        Config config;
        config.perspective_correction = true;
        config.shooting_mode = ShootingModePageTurn;
        config.pdf_ocr = true;
        config.save();
        {
            QSettings file("system.ini", QSettings::IniFormat);
            QCOMPARE(file.allKeys().size(), 32);
            QCOMPARE(file.value("extra/perspective").toString(), QString("true"));
            QCOMPARE(file.value("extra/shooting_mode").toInt(), 1);
            QCOMPARE(file.value("extra/pdf_ocr").toString(), QString("true"));
        }

        config.perspective_correction = false;
        config.save();
        {
            QSettings file("system.ini", QSettings::IniFormat);
            QCOMPARE(file.allKeys().size(), 31);
            QVERIFY(!file.contains("extra/perspective"));
        }

        config.shooting_mode = ShootingModeInterval;
        config.pdf_ocr = false;
        config.save();
        QSettings file("system.ini", QSettings::IniFormat);
        QCOMPARE(file.allKeys().size(), 29);
        QVERIFY(!readAll("system.ini").contains("[extra]"));
    }

    void extensionSettingsComeBackOnLoad()
    {
        WorkingDirectory wd;
        {
            Config config;
            config.perspective_correction = true;
            config.shooting_mode = ShootingModePageTurn;
            config.pdf_ocr = true;
            config.save();
        }
        Config config;
        QCOMPARE(config.perspective_correction, true);
        QCOMPARE(config.shooting_mode, int(ShootingModePageTurn));
        QCOMPARE(config.pdf_ocr, true);
    }

    // Unlike the original keys, a missing or unreadable extension key gives
    // the default, not 0 or false.
    void missingOrUnreadableExtensionKeyReadsItsDefault()
    {
        WorkingDirectory wd;
        writeSettings("system.ini");
        {
            QSettings file("system.ini", QSettings::IniFormat);
            file.setValue("extra/shooting_mode", "abc");
            file.setValue("extra/perspective", "vielleicht");
        }
        Config config;
        QCOMPARE(config.shooting_mode, int(ShootingModeInterval));
        QCOMPARE(config.perspective_correction, false);
        QCOMPARE(config.pdf_ocr, false);
        // An older file without the group is read unharmed and not completed.
        const QByteArray before = readAll("system.ini");
        Config again;
        QCOMPARE(readAll("system.ini"), before);
    }

    void initRestoresExtensionDefaultsAndSaveRemovesTheirKeys()
    {
        WorkingDirectory wd;
        Config config;
        config.perspective_correction = true;
        config.shooting_mode = ShootingModePageTurn;
        config.pdf_ocr = true;
        config.save();

        config.init();
        QCOMPARE(config.perspective_correction, false);
        QCOMPARE(config.shooting_mode, int(ShootingModeInterval));
        QCOMPARE(config.pdf_ocr, false);
        config.save();
        QSettings file("system.ini", QSettings::IniFormat);
        QCOMPARE(file.allKeys().size(), 29);
    }

    void recordAudioSettingsAreExtensions()
    {
        WorkingDirectory wd;
        Config config;
        QCOMPARE(config.record_audio, false);
        QCOMPARE(config.audio_input, QString());
        QVERIFY(!readAll("system.ini").contains("[extra]"));

        config.record_audio = true;
        config.audio_input = QStringLiteral("desk_microphone");
        config.save();
        {
            QSettings file("system.ini", QSettings::IniFormat);
            QCOMPARE(file.allKeys().size(), 31);
            QCOMPARE(file.value("extra/record_audio").toString(), QString("true"));
            QCOMPARE(file.value("extra/audio_input").toString(), QString("desk_microphone"));
        }
        Config again;
        QCOMPARE(again.record_audio, true);
        QCOMPARE(again.audio_input, QString("desk_microphone"));

        again.init();
        QCOMPARE(again.record_audio, false);
        QCOMPARE(again.audio_input, QString());
        again.save();
        QSettings file("system.ini", QSettings::IniFormat);
        QCOMPARE(file.allKeys().size(), 29);
        QVERIFY(!file.contains("extra/audio_input"));
    }
};

QTEST_GUILESS_MAIN(tst_Config)
#include "tst_config.moc"
