// The settings window: its form, loading the controls from the settings
// record and the current camera, the value labels, the colour and font
// choices, the defaults button and the save into "system.ini".
#include "audio/microphone.h"
#include "cache.h"
#include "camerainfo.h"
#include "settingdialog.h"
#include "startup.h"
#include "testsupport.h"

#include <QApplication>
#include <QButtonGroup>
#include <QCheckBox>
#include <QColorDialog>
#include <QComboBox>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFontDialog>
#include <QGroupBox>
#include <QInputMethodEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QSettings>
#include <QSignalSpy>
#include <QSlider>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <functional>
#include <memory>

namespace {

constexpr int dialogDeadline = 20000;

// The controls, looked up by their object names as other code does.
struct Form
{
    explicit Form(const QWidget &dialog) : dialog(dialog) { }

    const QWidget &dialog;

    template<typename T>
    T *get(const char *name) const
    {
        T *child = dialog.findChild<T *>(name);
        if (!child)
            qFatal("the settings window has no %s named %s", T::staticMetaObject.className(), name);
        return child;
    }

#define CONTROL(type, name) type *const name = get<type>(#name);
    CONTROL(QComboBox, imageFOURCCBox)
    CONTROL(QComboBox, imageResolutionBox)
    CONTROL(QComboBox, imageCodecBox)
    CONTROL(QComboBox, imageOutResolutionBox)
    CONTROL(QComboBox, painting_mian_resolutionBox)
    CONTROL(QComboBox, painting_other_resolutionBox)
    CONTROL(QSlider, imageQualityBox)
    CONTROL(QSlider, watermark_transparency_box)
    CONTROL(QSlider, watermark_x_box)
    CONTROL(QSlider, watermark_y_box)
    CONTROL(QSlider, painting_percentage_box)
    CONTROL(QLabel, lbImageQuality)
    CONTROL(QLabel, lbWatermarkTransparency)
    CONTROL(QLabel, lbWatermarkX)
    CONTROL(QLabel, lbWatermarkY)
    CONTROL(QLabel, lbPaintingPercentage)
    CONTROL(QLabel, lbWatermarkDemo)
    CONTROL(QLineEdit, imageShootingTimeBox)
    CONTROL(QLineEdit, watermark_text_box)
    CONTROL(QLineEdit, savePreNameBox)
    CONTROL(QLineEdit, saveImageNumber)
    CONTROL(QRadioButton, radioButton_watermark_text)
    CONTROL(QRadioButton, radioButton_watermark_time)
    CONTROL(QRadioButton, radioButton_File)
    CONTROL(QRadioButton, radioButton_Time)
    CONTROL(QCheckBox, checkBox_Perspective)
    CONTROL(QComboBox, shootingModeBox)
    CONTROL(QCheckBox, checkBox_RecordAudio)
    CONTROL(QComboBox, audioInputBox)
    CONTROL(QCheckBox, checkBox_Sound)
    CONTROL(QCheckBox, checkBox_SaveMergeSourceImageBox)
    CONTROL(QCheckBox, checkBox_SavePdfSourceBox)
    CONTROL(QPushButton, btnColorSelect)
    CONTROL(QPushButton, btnFontSelect)
    CONTROL(QPushButton, saveSetting)
    CONTROL(QPushButton, btnDefaultSetting)
    CONTROL(QPushButton, btnVideoSetting)
#undef CONTROL
};

CameraInfo camera(int index, const QList<QSize> &sizes)
{
    CameraInfo info;
    info.index = index;
    info.deviceName = QString("/dev/video%1").arg(index);
    info.description = QString("Camera %1").arg(index);
    info.supportedImageCodecs << "MJPG"
                              << "YUYV";
    info.supportedResolutions = sizes;
    return info;
}

QStringList itemTexts(const QComboBox *box)
{
    QStringList texts;
    for (int i = 0; i < box->count(); ++i)
        texts << box->itemText(i);
    return texts;
}

QList<QVariant> itemData(const QComboBox *box)
{
    QList<QVariant> data;
    for (int i = 0; i < box->count(); ++i)
        data << box->itemData(i);
    return data;
}

QStringList sizeTexts(const QList<QSize> &sizes)
{
    QStringList texts;
    for (const QSize &size : sizes)
        texts << QString("%1x%2").arg(size.width()).arg(size.height());
    return texts;
}

QList<QVariant> sizeData(const QList<QSize> &sizes)
{
    QList<QVariant> data;
    for (const QSize &size : sizes)
        data << QVariant(size);
    return data;
}

QColor sampleColor(const QWidget &dialog)
{
    return Form(dialog).lbWatermarkDemo->palette().color(QPalette::WindowText);
}

// Pixels of exactly this colour in the rendered sample label.
int pixelsOf(const QWidget &dialog, const QColor &color)
{
    const QImage shot = Form(dialog).lbWatermarkDemo->grab().toImage();
    int count = 0;
    for (int y = 0; y < shot.height(); ++y)
        for (int x = 0; x < shot.width(); ++x)
            if (shot.pixelColor(x, y).rgb() == color.rgb())
                ++count;
    return count;
}

// Replaces the field's text as the operator would: Latin text key by key,
// Chinese text as an input method commits it.
void typeInto(QLineEdit *edit, const QString &text)
{
    edit->selectAll();
    edit->del();
    bool latin = true;
    for (const QChar c : text)
        latin = latin && c.unicode() < 128;
    if (latin) {
        QTest::keyClicks(edit, text);
    } else {
        QInputMethodEvent commit;
        commit.setCommitString(text);
        QApplication::sendEvent(edit, &commit);
    }
}

// What a modal dialog looked like when the test answered it.
struct Answered
{
    bool seen = false;
    QWidget *parent = nullptr;
    QString title;
    QColor initialColor;
    QFont initialFont;
};

// Waits, inside the modal loop that the next click opens, for a dialog of
// type T to become the active modal widget and hands it to `act`. Any other
// modal widget, or none before the deadline, is rejected so that a wrong or
// missing dialog fails the test instead of blocking it.
template<typename T>
std::shared_ptr<Answered> answerNext(std::function<void(T *, Answered &)> act)
{
    auto answered = std::make_shared<Answered>();
    auto *timer = new QTimer;
    auto clock = std::make_shared<QElapsedTimer>();
    clock->start();
    QObject::connect(timer, &QTimer::timeout, [timer, clock, answered, act]() {
        QWidget *modal = QApplication::activeModalWidget();
        T *dialog = qobject_cast<T *>(modal);
        if (dialog && dialog->isVisible()) {
            timer->stop();
            timer->deleteLater();
            answered->seen = true;
            answered->parent = dialog->parentWidget();
            answered->title = dialog->windowTitle();
            act(dialog, *answered);
        } else if (clock->elapsed() > dialogDeadline) {
            timer->stop();
            timer->deleteLater();
            if (auto *other = qobject_cast<QDialog *>(modal))
                other->reject();
        }
    });
    timer->start(20);
    return answered;
}

std::shared_ptr<Answered> chooseColor(const QColor &color, bool accept)
{
    return answerNext<QColorDialog>([color, accept](QColorDialog *dialog, Answered &answered) {
        answered.initialColor = dialog->currentColor();
        dialog->setCurrentColor(color);
        if (accept)
            dialog->accept();
        else
            dialog->reject();
    });
}

std::shared_ptr<Answered> chooseFont(const QFont &font, bool accept)
{
    return answerNext<QFontDialog>([font, accept](QFontDialog *dialog, Answered &answered) {
        answered.initialFont = dialog->currentFont();
        dialog->setCurrentFont(font);
        if (accept)
            dialog->accept();
        else
            dialog->reject();
    });
}

// Every persisted key with the value the factory defaults give it here
// (camera index and output folder are filled per test).
QMap<QString, QVariant> factoryFile(int cameraIndex, const QString &folder)
{
    QMap<QString, QVariant> file;
    for (const auto &key : factorySettings(folder))
        file.insert(key.first, key.second);
    file["camera/index"] = cameraIndex;
    return file;
}

// Settings far from the factory values, for loading and for the defaults
// button to undo.
void setUnusualSettings(Config *config)
{
    config->camera_index = 1;
    config->image_fourcc = 1;
    config->image_resolution = 1;
    config->image_out_resolution = 7;
    config->image_codec = "png";
    config->image_shooting_time = 9;
    config->image_quality = 33;
    config->save_type = 1;
    config->save_prefix = "文档";
    config->save_number = 42;
    config->save_playsound = false;
    config->save_merge_source = false;
    config->save_pdf_source = true;
    config->watermark_text = "机密";
    config->watermark_time = true;
    config->watermark_color = "ff3366cc";
    config->watermark_font_family = "DejaVu Serif";
    config->watermark_font_size = 24;
    config->watermark_font_styleName = "Bold";
    config->watermark_font_strikeOut = true;
    config->watermark_font_underline = true;
    config->watermark_transparency = 20;
    config->watermark_x = 10;
    config->watermark_y = 90;
    config->painting_percentage = 45;
    config->painting_main_resolution = 2;
    config->painting_other_resolution = 11;
}

} // namespace

class tst_SettingDialog : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> workDir;
    QString startDir;
    const QList<QSize> camera0Sizes{ QSize(1920, 1080), QSize(1280, 720), QSize(640, 480) };
    const QList<QSize> camera1Sizes{ QSize(2592, 1944), QSize(800, 600) };

    QString iniPath() const { return workDir->filePath("system.ini"); }

    QVariant stored(const QString &key) const
    {
        QSettings file(iniPath(), QSettings::IniFormat);
        return file.value(key);
    }

    QString folder() const { return QDir::homePath() + "/Veltaro"; }

    void compareFile(const QMap<QString, QVariant> &expected)
    {
        QVERIFY(QFile::exists(iniPath()));
        QSettings file(iniPath(), QSettings::IniFormat);
        QCOMPARE(file.allKeys().size(), 29);
        for (auto it = expected.constBegin(); it != expected.constEnd(); ++it)
            QVERIFY2(file.value(it.key()).toString() == it.value().toString(),
                     qPrintable(QString("%1: stored %2, expected %3")
                                        .arg(it.key(), file.value(it.key()).toString(),
                                             it.value().toString())));
    }

private slots:
    void initTestCase() { startDir = QDir::currentPath(); }

    // Each case runs in a working directory of its own, with the factory
    // settings, the twelve output sizes, the writable formats and two
    // cameras.
    void init()
    {
        workDir = std::make_unique<QTemporaryDir>();
        QVERIFY(workDir->isValid());
        QVERIFY(QDir::setCurrent(workDir->path()));

        Config *config = Cache::config;
        config->init();
        config->camera_index = 0;
        config->user_documentsLocation = folder();
        config->resolutions.clear();
        appendOutputSizes(config->resolutions);
        config->iamge_formats.clear();
        appendWritableFormats(config->iamge_formats);
        QVERIFY(config->iamge_formats.contains("png"));
        QVERIFY(config->iamge_formats.contains("jpg"));

        Cache::cameras->clear();
        *Cache::cameras << camera(0, camera0Sizes) << camera(1, camera1Sizes);
    }

    void cleanup()
    {
        QDir::setCurrent(startDir);
        workDir.reset();
    }

    // ------------------------------------------------------------ the form

    void formHasTitleSizeAndGroups()
    {
        SettingDialog dialog;
        QCOMPARE(dialog.windowTitle(), QString("设置"));
        // The extension group below the original ones makes the window
        // taller; the original groups keep their places.
        QCOMPARE(dialog.size(), QSize(444, 916));
        QCOMPARE(dialog.objectName(), QString("SettingDialog"));
        QVERIFY(!(dialog.windowFlags() & Qt::WindowContextHelpButtonHint));

        const QMap<QString, QString> groups{ { "groupPictureParameters", "图片参数" },
                                             { "groupWatermarkBoxConfigBox", "水印配置" },
                                             { "groupSaveConfigBox", "保存配置" },
                                             { "groupPanting", "画中画配置" },
                                             { "groupExtra", "增强功能" } };
        for (auto it = groups.constBegin(); it != groups.constEnd(); ++it) {
            auto *group = dialog.findChild<QGroupBox *>(it.key());
            QVERIFY2(group, qPrintable(it.key()));
            QCOMPARE(group->title(), it.value());
        }
        QCOMPARE(dialog.findChildren<QGroupBox *>().size(), 5);
        const QMap<QString, QRect> places{ { "groupPictureParameters", QRect(10, 8, 424, 198) },
                                           { "groupWatermarkBoxConfigBox",
                                             QRect(10, 212, 424, 252) },
                                           { "groupSaveConfigBox", QRect(10, 470, 424, 118) },
                                           { "groupPanting", QRect(10, 594, 424, 122) },
                                           { "groupExtra", QRect(10, 722, 424, 148) } };
        for (auto it = places.constBegin(); it != places.constEnd(); ++it)
            QCOMPARE(dialog.findChild<QGroupBox *>(it.key())->geometry(), it.value());
        // The buttons stay at the bottom, below the extension group.
        QCOMPARE(dialog.findChild<QPushButton *>("saveSetting")->geometry(),
                 QRect(92, 876, 120, 30));

        // Each control sits in its group.
        const QMap<QString, QString> home{ { "imageFOURCCBox", "groupPictureParameters" },
                                           { "imageShootingTimeBox", "groupPictureParameters" },
                                           { "lbWatermarkDemo", "groupWatermarkBoxConfigBox" },
                                           { "btnFontSelect", "groupWatermarkBoxConfigBox" },
                                           { "saveImageNumber", "groupSaveConfigBox" },
                                           { "checkBox_SavePdfSourceBox", "groupSaveConfigBox" },
                                           { "painting_mian_resolutionBox", "groupPanting" },
                                           { "lbPaintingPercentage", "groupPanting" },
                                           { "checkBox_Perspective", "groupExtra" },
                                           { "shootingModeBox", "groupExtra" },
                                           { "checkBox_RecordAudio", "groupExtra" },
                                           { "audioInputBox", "groupExtra" },
                                           { "label_audio_input", "groupExtra" } };
        for (auto it = home.constBegin(); it != home.constEnd(); ++it) {
            QWidget *w = dialog.findChild<QWidget *>(it.key());
            QVERIFY2(w, qPrintable(it.key()));
            QCOMPARE(w->parentWidget()->objectName(), it.value());
        }
    }

    void formLabelsAndButtonsCarryTheirTexts()
    {
        SettingDialog dialog;
        const QMap<QString, QString> labels{ { "label_16", "渲染模式" },
                                             { "label_17", "相机分辨率" },
                                             { "label_18", "图片格式" },
                                             { "label_19", "图片压缩" },
                                             { "label_22", "图片分辨率" },
                                             { "label_32", "定时拍照时间间隔(秒)" },
                                             { "label_27", "水印透明度" },
                                             { "label_26", "水平偏移" },
                                             { "label_28", "垂直偏移" },
                                             { "label_23", "水印样式" },
                                             { "lbWatermarkDemo", "我是水印样式Demo" },
                                             { "label_29", "前缀" },
                                             { "label_30", "+" },
                                             { "label_31", "画中画比例" },
                                             { "label_20", "主头分辨率" },
                                             { "label_24", "副头分辨率" },
                                             { "lbImageQuality", "80%" },
                                             { "lbWatermarkTransparency", "50%" },
                                             { "lbWatermarkX", "50%" },
                                             { "lbWatermarkY", "50%" },
                                             { "lbPaintingPercentage", "30%" },
                                             { "label_shooting_mode", "连拍方式" },
                                             { "label_audio_input", "麦克风" } };
        for (auto it = labels.constBegin(); it != labels.constEnd(); ++it) {
            auto *label = dialog.findChild<QLabel *>(it.key());
            QVERIFY2(label, qPrintable(it.key()));
            QCOMPARE(label->text(), it.value());
        }

        const QMap<QString, QString> buttons{
            { "btnColorSelect", "颜色设置" },
            { "btnFontSelect", "字体设置" },
            { "saveSetting", "保存" },
            { "btnDefaultSetting", "默认设置" },
            { "btnVideoSetting", "视频设置" },
            { "radioButton_watermark_text", "自定义文字" },
            { "radioButton_watermark_time", "拍摄时间为水印" },
            { "radioButton_File", "自定义文件名" },
            { "radioButton_Time", "拍摄时间为文件名" },
            { "checkBox_Sound", "播放声音" },
            { "checkBox_SaveMergeSourceImageBox", "合并图像图保存源图像" },
            { "checkBox_SavePdfSourceBox", "存PDF不保存源图像" },
            { "checkBox_Perspective", "透视矫正（按纸张四角拉正）" },
            { "checkBox_RecordAudio", "录像时同时录音" }
        };
        for (auto it = buttons.constBegin(); it != buttons.constEnd(); ++it) {
            auto *button = dialog.findChild<QAbstractButton *>(it.key());
            QVERIFY2(button, qPrintable(it.key()));
            QCOMPARE(button->text(), it.value());
        }
    }

    void formDefaultsBeforeLoading()
    {
        SettingDialog dialog;
        const Form ui(dialog);

        QCOMPARE(itemTexts(ui.imageFOURCCBox), QStringList({ "MJPG", "YUYV" }));
        QCOMPARE(ui.imageResolutionBox->count(), 0);
        QCOMPARE(ui.imageCodecBox->count(), 0);
        QCOMPARE(ui.imageOutResolutionBox->count(), 0);
        QCOMPARE(ui.painting_mian_resolutionBox->count(), 0);
        QCOMPARE(ui.painting_other_resolutionBox->count(), 0);

        const QList<QPair<QSlider *, int>> sliders{ { ui.imageQualityBox, 80 },
                                                    { ui.watermark_transparency_box, 50 },
                                                    { ui.watermark_x_box, 50 },
                                                    { ui.watermark_y_box, 50 },
                                                    { ui.painting_percentage_box, 30 } };
        for (const auto &slider : sliders) {
            QCOMPARE(slider.first->minimum(), 0);
            QCOMPARE(slider.first->maximum(), 100);
            QCOMPARE(slider.first->value(), slider.second);
            QCOMPARE(slider.first->orientation(), Qt::Horizontal);
            QCOMPARE(slider.first->singleStep(), 1);
            QCOMPARE(slider.first->pageStep(), 10);
        }
        QCOMPARE(ui.imageQualityBox->tickPosition(), QSlider::NoTicks);
        QCOMPARE(ui.watermark_transparency_box->tickPosition(), QSlider::TicksAbove);
        QCOMPARE(ui.watermark_x_box->tickPosition(), QSlider::TicksAbove);
        QCOMPARE(ui.watermark_y_box->tickPosition(), QSlider::TicksAbove);
        QCOMPARE(ui.painting_percentage_box->tickPosition(), QSlider::TicksAbove);

        const QString white = "background-color: rgb(255, 255, 255);";
        for (QLineEdit *edit : { ui.imageShootingTimeBox, ui.watermark_text_box, ui.savePreNameBox,
                                 ui.saveImageNumber }) {
            QCOMPARE(edit->styleSheet(), white);
            QCOMPARE(edit->validator(), nullptr);
            QCOMPARE(edit->inputMask(), QString());
        }
        QCOMPARE(ui.imageShootingTimeBox->text(), QString());
        QCOMPARE(ui.watermark_text_box->text(), QString());
        QCOMPARE(ui.savePreNameBox->text(), QString("IMG"));
        QCOMPARE(ui.saveImageNumber->text(), QString("0"));

        QVERIFY(!ui.radioButton_watermark_text->isChecked());
        QVERIFY(ui.radioButton_watermark_time->isChecked());
        QVERIFY(ui.radioButton_File->isChecked());
        QVERIFY(!ui.radioButton_Time->isChecked());
        QVERIFY(ui.checkBox_Sound->isChecked());
        QVERIFY(!ui.checkBox_SaveMergeSourceImageBox->isChecked());
        QVERIFY(!ui.checkBox_SavePdfSourceBox->isChecked());
    }

    void buttonGroupsHoldTheRadiosWithTheirIds()
    {
        SettingDialog dialog;
        QCOMPARE(dialog.saveButtonGroup->parent(), &dialog);
        QCOMPARE(dialog.saveButtonGroup->buttons().size(), 2);
        QCOMPARE(dialog.saveButtonGroup->id(Form(dialog).radioButton_File), 0);
        QCOMPARE(dialog.saveButtonGroup->id(Form(dialog).radioButton_Time), 1);
        QCOMPARE(dialog.watermakeButtonGroup->parent(), &dialog);
        QCOMPARE(dialog.watermakeButtonGroup->buttons().size(), 2);
        QCOMPARE(dialog.watermakeButtonGroup->id(Form(dialog).radioButton_watermark_text), 0);
        QCOMPARE(dialog.watermakeButtonGroup->id(Form(dialog).radioButton_watermark_time), 1);
        QVERIFY(dialog.saveButtonGroup->exclusive());
        QVERIFY(dialog.watermakeButtonGroup->exclusive());
    }

    void threeControlsStayHidden()
    {
        SettingDialog dialog;
        dialog.show();
        dialog.init();
        dialog.hide();
        dialog.show();
        const Form ui(dialog);
        for (QWidget *w : { static_cast<QWidget *>(ui.checkBox_SavePdfSourceBox),
                            static_cast<QWidget *>(ui.checkBox_SaveMergeSourceImageBox),
                            static_cast<QWidget *>(ui.btnVideoSetting) }) {
            QVERIFY2(w->isHidden(), qPrintable(w->objectName()));
            QVERIFY(!w->isVisible());
        }
        for (QWidget *w :
             { static_cast<QWidget *>(ui.checkBox_Sound), static_cast<QWidget *>(ui.saveSetting),
               static_cast<QWidget *>(ui.btnDefaultSetting),
               static_cast<QWidget *>(ui.lbWatermarkDemo) })
            QVERIFY2(w->isVisible(), qPrintable(w->objectName()));
    }

    // ------------------------------------------------------------- loading

    void openingTwiceListsEachResolutionOnce()
    {
        SettingDialog dialog;
        dialog.show();
        dialog.init();
        dialog.close();
        dialog.show();
        dialog.init();
        const Form ui(dialog);

        QCOMPARE(itemTexts(ui.imageResolutionBox), sizeTexts(camera0Sizes));
        QCOMPARE(itemData(ui.imageResolutionBox), sizeData(camera0Sizes));
        QCOMPARE(itemTexts(ui.imageCodecBox), QStringList(Cache::config->iamge_formats));
        const QList<QSize> &outputs = Cache::config->resolutions;
        QCOMPARE(outputs.size(), 12);
        for (QComboBox *box : { ui.imageOutResolutionBox, ui.painting_mian_resolutionBox,
                                ui.painting_other_resolutionBox }) {
            QCOMPARE(itemTexts(box), sizeTexts(outputs));
            QCOMPARE(itemData(box), sizeData(outputs));
        }
        QCOMPARE(itemTexts(ui.imageFOURCCBox), QStringList({ "MJPG", "YUYV" }));
    }

    void outputSizeListsStartWith640x480()
    {
        Cache::config->resolutions = { QSize(640, 480), QSize(1280, 720), QSize(4640, 3452) };
        SettingDialog dialog;
        dialog.init();
        for (QComboBox *box :
             { Form(dialog).imageOutResolutionBox, Form(dialog).painting_mian_resolutionBox,
               Form(dialog).painting_other_resolutionBox }) {
            QCOMPARE(box->itemText(0), QString("640x480"));
            QCOMPARE(box->itemData(0), QVariant(QSize(640, 480)));
            QCOMPARE(itemTexts(box), QStringList({ "640x480", "1280x720", "4640x3452" }));
        }
    }

    void resolutionsFollowTheCurrentCamera()
    {
        SettingDialog dialog;
        dialog.init();
        QCOMPARE(itemTexts(Form(dialog).imageResolutionBox), sizeTexts(camera0Sizes));
        Cache::config->camera_index = 1;
        dialog.init();
        QCOMPARE(itemTexts(Form(dialog).imageResolutionBox),
                 QStringList({ "2592x1944", "800x600" }));
        QCOMPARE(Form(dialog).imageResolutionBox->itemData(1), QVariant(QSize(800, 600)));
    }

    void initLoadsEveryControlFromTheSettings()
    {
        setUnusualSettings(Cache::config);
        SettingDialog dialog;
        dialog.init();
        const Form ui(dialog);

        QCOMPARE(ui.imageFOURCCBox->currentIndex(), 1);
        QCOMPARE(ui.imageFOURCCBox->currentText(), QString("YUYV"));
        QCOMPARE(ui.imageResolutionBox->currentText(), QString("800x600"));
        QCOMPARE(ui.imageOutResolutionBox->currentIndex(), 7);
        QCOMPARE(ui.imageOutResolutionBox->currentText(), QString("1600x1200"));
        QCOMPARE(ui.imageCodecBox->currentText(), QString("png"));
        QCOMPARE(ui.imageShootingTimeBox->text(), QString("9"));
        QCOMPARE(ui.imageQualityBox->value(), 33);
        QCOMPARE(ui.lbImageQuality->text(), QString("33%"));

        QVERIFY(ui.radioButton_Time->isChecked());
        QVERIFY(!ui.radioButton_File->isChecked());
        QCOMPARE(ui.savePreNameBox->text(), QString("文档"));
        QCOMPARE(ui.saveImageNumber->text(), QString("42"));
        QVERIFY(!ui.checkBox_Sound->isChecked());
        QVERIFY(ui.checkBox_SavePdfSourceBox->isChecked());
        QVERIFY(!ui.checkBox_SaveMergeSourceImageBox->isChecked());

        QCOMPARE(ui.watermark_text_box->text(), QString("机密"));
        QVERIFY(ui.radioButton_watermark_time->isChecked());
        QVERIFY(!ui.radioButton_watermark_text->isChecked());
        QCOMPARE(ui.watermark_transparency_box->value(), 20);
        QCOMPARE(ui.lbWatermarkTransparency->text(), QString("20%"));
        QCOMPARE(ui.watermark_x_box->value(), 10);
        QCOMPARE(ui.lbWatermarkX->text(), QString("10%"));
        QCOMPARE(ui.watermark_y_box->value(), 90);
        QCOMPARE(ui.lbWatermarkY->text(), QString("90%"));
        QCOMPARE(ui.painting_percentage_box->value(), 45);
        QCOMPARE(ui.lbPaintingPercentage->text(), QString("45%"));
        QCOMPARE(ui.painting_mian_resolutionBox->currentText(), QString("3742x2806"));
        QCOMPARE(ui.painting_other_resolutionBox->currentText(), QString("640x480"));

        QCOMPARE(sampleColor(dialog), QColor(0x33, 0x66, 0xcc));
        const QFont font = ui.lbWatermarkDemo->font();
        QCOMPARE(font.family(), QString("DejaVu Serif"));
        QCOMPARE(font.pointSize(), 24);
        QCOMPARE(font.styleName(), QString("Bold"));
        QVERIFY(font.strikeOut());
        QVERIFY(font.underline());
        // Only colour and font reach the sample; the numbers stay numbers.
        QCOMPARE(ui.lbWatermarkDemo->text(), QString("我是水印样式Demo"));
    }

    void radiosFollowTheSettingsBothWays()
    {
        SettingDialog dialog;
        Cache::config->save_type = 1;
        Cache::config->watermark_time = true;
        dialog.init();
        QCOMPARE(dialog.saveButtonGroup->checkedId(), 1);
        QCOMPARE(dialog.watermakeButtonGroup->checkedId(), 1);
        Cache::config->save_type = 0;
        Cache::config->watermark_time = false;
        dialog.init();
        QCOMPARE(dialog.saveButtonGroup->checkedId(), 0);
        QCOMPARE(dialog.watermakeButtonGroup->checkedId(), 0);
        QVERIFY(Form(dialog).radioButton_watermark_text->isChecked());
    }

    void closingWithoutSaveDiscardsTheEdit()
    {
        SettingDialog dialog;
        dialog.show();
        dialog.init();
        typeInto(Form(dialog).savePreNameBox, "XYZ");
        Form(dialog).imageQualityBox->setSliderPosition(12);
        dialog.close();
        QCOMPARE(Cache::config->save_prefix, QString("IMG"));
        QVERIFY(!QFile::exists(iniPath()));

        dialog.show();
        dialog.init();
        QCOMPARE(Form(dialog).savePreNameBox->text(), QString("IMG"));
        QCOMPARE(Form(dialog).imageQualityBox->value(), 80);
        QCOMPARE(Form(dialog).lbImageQuality->text(), QString("80%"));
    }

    void noCameraLeavesTheResolutionListEmptyAndStoresMinusOne()
    {
        Cache::cameras->clear();
        SettingDialog dialog;
        dialog.show();
        dialog.init();
        QCOMPARE(Form(dialog).imageResolutionBox->count(), 0);
        Form(dialog).saveSetting->click();
        QCOMPARE(Cache::config->image_resolution, -1);
        QCOMPARE(stored("image/resolution").toInt(), -1);
    }

    void cameraWithoutResolutionsStoresMinusOne()
    {
        (*Cache::cameras)[0].supportedResolutions.clear();
        SettingDialog dialog;
        dialog.show();
        dialog.init();
        QCOMPARE(Form(dialog).imageResolutionBox->count(), 0);
        Form(dialog).saveSetting->click();
        QCOMPARE(stored("image/resolution").toInt(), -1);
    }

    void unknownCameraIndexListsTheFirstCamera()
    {
        Cache::config->camera_index = 7;
        SettingDialog dialog;
        dialog.init();
        QCOMPARE(itemTexts(Form(dialog).imageResolutionBox), sizeTexts(camera0Sizes));
    }

    // -------------------------------------------------------- value labels

    void movingXSliderTo73Shows73Percent()
    {
        SettingDialog dialog;
        dialog.show();
        dialog.init();
        Form(dialog).watermark_x_box->setSliderPosition(73);
        QCOMPARE(Form(dialog).lbWatermarkX->text(), QString("73%"));
        QCOMPARE(Form(dialog).lbWatermarkY->text(), QString("50%"));
        Form(dialog).saveSetting->click();
        QCOMPARE(stored("watermark/x").toInt(), 73);
    }

    void everySliderWritesItsOwnLabel()
    {
        SettingDialog dialog;
        dialog.show();
        dialog.init();
        const Form ui(dialog);
        const QList<QPair<QSlider *, QLabel *>> pairs{
            { ui.imageQualityBox, ui.lbImageQuality },
            { ui.watermark_transparency_box, ui.lbWatermarkTransparency },
            { ui.watermark_x_box, ui.lbWatermarkX },
            { ui.watermark_y_box, ui.lbWatermarkY },
            { ui.painting_percentage_box, ui.lbPaintingPercentage }
        };
        int value = 3;
        for (const auto &pair : pairs) {
            pair.first->setFocus();
            pair.first->setSliderPosition(value);
            QCOMPARE(pair.second->text(), QString("%1%").arg(value));
            value += 17;
        }
        // Each label moved with its own slider only.
        QCOMPARE(ui.lbImageQuality->text(), QString("3%"));
        QCOMPARE(ui.lbWatermarkTransparency->text(), QString("20%"));
        QCOMPARE(ui.lbWatermarkX->text(), QString("37%"));
        QCOMPARE(ui.lbWatermarkY->text(), QString("54%"));
        QCOMPARE(ui.lbPaintingPercentage->text(), QString("71%"));

        ui.painting_percentage_box->setSliderPosition(100);
        QCOMPARE(ui.lbPaintingPercentage->text(), QString("100%"));
        ui.imageQualityBox->setSliderPosition(0);
        QCOMPARE(ui.lbImageQuality->text(), QString("0%"));
    }

    void keyboardStepMovesTheLabel()
    {
        SettingDialog dialog;
        dialog.show();
        dialog.init();
        dialog.activateWindow();
        Form(dialog).watermark_y_box->setFocus();
        QTest::keyClick(Form(dialog).watermark_y_box, Qt::Key_Right);
        QCOMPARE(Form(dialog).lbWatermarkY->text(), QString("51%"));
        QTest::keyClick(Form(dialog).watermark_y_box, Qt::Key_PageDown);
        QCOMPARE(Form(dialog).lbWatermarkY->text(), QString("41%"));
    }

    // ------------------------------------------------------ colour and font

    void greenFromColourDialogSavesFf00ff00AndShowsGreenOnReopening()
    {
        SettingDialog dialog;
        dialog.show();
        dialog.init();
        QCOMPARE(sampleColor(dialog), QColor(0, 0, 0));

        auto answer = chooseColor(QColor(0, 255, 0), true);
        Form(dialog).btnColorSelect->click();
        QVERIFY(answer->seen);
        QCOMPARE(answer->parent, &dialog);
        QCOMPARE(answer->initialColor, QColor(0, 0, 0));
        QCOMPARE(sampleColor(dialog), QColor(0, 255, 0));

        Form(dialog).saveSetting->click();
        QCOMPARE(Cache::config->watermark_color, QString("ff00ff00"));
        QCOMPARE(stored("watermark/color").toString(), QString("ff00ff00"));
        QVERIFY(!dialog.isVisible());

        dialog.show();
        dialog.init();
        QCOMPARE(sampleColor(dialog), QColor(0, 255, 0));
        QVERIFY2(pixelsOf(dialog, QColor(0, 255, 0)) > 20, "no green text in the sample");
        QCOMPARE(pixelsOf(dialog, QColor(0, 0, 0)), 0);

        // A fresh window reading the stored colour shows green as well.
        SettingDialog other;
        other.show();
        other.init();
        QCOMPARE(sampleColor(other), QColor(0, 255, 0));
    }

    void cancelledColourDialogMakesSampleInvalidAndSavesFf000000()
    {
        Cache::config->watermark_color = "ff3366cc";
        SettingDialog dialog;
        dialog.show();
        dialog.init();
        QCOMPARE(sampleColor(dialog), QColor(0x33, 0x66, 0xcc));

        auto answer = chooseColor(QColor(255, 0, 0), false);
        Form(dialog).btnColorSelect->click();
        QVERIFY(answer->seen);
        QCOMPARE(answer->initialColor, QColor(0x33, 0x66, 0xcc));
        QVERIFY(!sampleColor(dialog).isValid());

        Form(dialog).saveSetting->click();
        QCOMPARE(stored("watermark/color").toString(), QString("ff000000"));
        QCOMPARE(Cache::config->watermark_color, QString("ff000000"));
    }

    void colourIsStoredOpaqueInLowerCase()
    {
        Cache::config->watermark_color = "80ABCDEF";
        SettingDialog dialog;
        dialog.show();
        dialog.init();
        Form(dialog).saveSetting->click();
        QCOMPARE(stored("watermark/color").toString(), QString("ffabcdef"));
    }

    void cancelledFontDialogLeavesSampleFontUnchanged()
    {
        SettingDialog dialog;
        dialog.show();
        dialog.init();
        const QFont before = Form(dialog).lbWatermarkDemo->font();
        QCOMPARE(before.family(), QString("Arial"));
        QCOMPARE(before.pointSize(), 100);

        QFont other("DejaVu Serif", 13);
        other.setBold(true);
        other.setUnderline(true);
        auto answer = chooseFont(other, false);
        Form(dialog).btnFontSelect->click();
        QVERIFY(answer->seen);
        QCOMPARE(answer->parent, &dialog);

        const QFont after = Form(dialog).lbWatermarkDemo->font();
        QCOMPARE(after, before);
        QCOMPARE(after.family(), QString("Arial"));
        QCOMPARE(after.pointSize(), 100);
        QCOMPARE(after.styleName(), QString("Regular"));
        QVERIFY(!after.underline());

        Form(dialog).saveSetting->click();
        QCOMPARE(stored("watermark/font_family").toString(), QString("Arial"));
        QCOMPARE(stored("watermark/font_size").toInt(), 100);
        QCOMPARE(stored("watermark/font_styleName").toString(), QString("Regular"));
        QCOMPARE(stored("watermark/underline").toBool(), false);
    }

    void acceptedFontDialogSetsSampleFont()
    {
        SettingDialog dialog;
        dialog.show();
        dialog.init();

        QFont chosen("DejaVu Sans", 31);
        chosen.setStrikeOut(true);
        chosen.setUnderline(true);
        auto answer = chooseFont(chosen, true);
        Form(dialog).btnFontSelect->click();
        QVERIFY(answer->seen);
        QCOMPARE(answer->parent, &dialog);
        // The dialog opened on the sample's font.
        QCOMPARE(answer->initialFont.pointSize(), 100);

        const QFont font = Form(dialog).lbWatermarkDemo->font();
        QCOMPARE(font.family(), QString("DejaVu Sans"));
        QCOMPARE(font.pointSize(), 31);
        QVERIFY(font.strikeOut());
        QVERIFY(font.underline());

        Form(dialog).saveSetting->click();
        QCOMPARE(stored("watermark/font_family").toString(), QString("DejaVu Sans"));
        QCOMPARE(stored("watermark/font_size").toInt(), 31);
        QCOMPARE(stored("watermark/strikeOut").toBool(), true);
        QCOMPARE(stored("watermark/underline").toBool(), true);
        QCOMPARE(stored("watermark/font_styleName").toString(), font.styleName());
    }

    // ---------------------------------------------------------------- save

    void shootingTimeTextAbcSavesZeroAnd12Saves12()
    {
        SettingDialog dialog;
        dialog.show();
        dialog.init();
        typeInto(Form(dialog).imageShootingTimeBox, "abc");
        QCOMPARE(Form(dialog).imageShootingTimeBox->text(), QString("abc"));
        Form(dialog).saveSetting->click();
        QCOMPARE(Cache::config->image_shooting_time, 0);
        QCOMPARE(stored("image/shooting_time").toString(), QString("0"));

        dialog.show();
        dialog.init();
        QCOMPARE(Form(dialog).imageShootingTimeBox->text(), QString("0"));
        typeInto(Form(dialog).imageShootingTimeBox, "12");
        Form(dialog).saveSetting->click();
        QCOMPARE(Cache::config->image_shooting_time, 12);
        QCOMPARE(stored("image/shooting_time").toString(), QString("12"));
    }

    void sequenceNumberTextAbcSavesZeroAnd12Saves12()
    {
        SettingDialog dialog;
        dialog.show();
        dialog.init();
        typeInto(Form(dialog).saveImageNumber, "abc");
        Form(dialog).saveSetting->click();
        QCOMPARE(stored("save/number").toString(), QString("0"));

        dialog.show();
        dialog.init();
        typeInto(Form(dialog).saveImageNumber, "12");
        Form(dialog).saveSetting->click();
        QCOMPARE(Cache::config->save_number, 12);
        QCOMPARE(stored("save/number").toString(), QString("12"));
    }

    void unchangedSaveWritesTheFileEmitsOnceAndCloses()
    {
        QVERIFY(!QFile::exists(iniPath()));
        SettingDialog dialog;
        QSignalSpy reconfig(&dialog, SIGNAL(reConfigVideoSettingSignal()));
        QSignalSpy video(&dialog, SIGNAL(videSettingSignal()));
        dialog.show();
        dialog.init();
        QVERIFY(dialog.isVisible());

        Form(dialog).saveSetting->click();
        compareFile(factoryFile(0, folder()));
        QCOMPARE(reconfig.count(), 1);
        QCOMPARE(video.count(), 0);
        QVERIFY(!dialog.isVisible());
        QCOMPARE(Cache::config->image_quality, 80);
        QCOMPARE(Cache::config->watermark_color, QString("ff000000"));

        // Again, with the file already there: written and signalled again.
        QVERIFY(QFile::remove(iniPath()));
        dialog.show();
        dialog.init();
        Form(dialog).saveSetting->click();
        QVERIFY(QFile::exists(iniPath()));
        QCOMPARE(reconfig.count(), 2);
    }

    void saveCopiesEveryControlIntoTheSettingsAndTheFile()
    {
        SettingDialog dialog;
        dialog.show();
        dialog.init();
        const Form ui(dialog);

        ui.imageFOURCCBox->setCurrentIndex(1);
        ui.imageResolutionBox->setCurrentIndex(2);
        ui.imageOutResolutionBox->setCurrentIndex(10);
        ui.imageCodecBox->setCurrentText("png");
        typeInto(ui.imageShootingTimeBox, "7");
        ui.imageQualityBox->setSliderPosition(64);
        ui.radioButton_Time->click();
        typeInto(ui.savePreNameBox, "扫描");
        typeInto(ui.saveImageNumber, "300");
        ui.checkBox_Sound->setChecked(false);
        ui.checkBox_SavePdfSourceBox->setChecked(false);
        ui.checkBox_SaveMergeSourceImageBox->setChecked(false);
        typeInto(ui.watermark_text_box, "机密 文件");
        ui.radioButton_watermark_time->click();
        ui.watermark_transparency_box->setSliderPosition(15);
        ui.watermark_x_box->setSliderPosition(25);
        ui.watermark_y_box->setSliderPosition(85);
        ui.painting_percentage_box->setSliderPosition(40);
        ui.painting_mian_resolutionBox->setCurrentIndex(0);
        ui.painting_other_resolutionBox->setCurrentIndex(11);

        QSignalSpy reconfig(&dialog, SIGNAL(reConfigVideoSettingSignal()));
        ui.saveSetting->click();
        QCOMPARE(reconfig.count(), 1);

        QMap<QString, QVariant> expected = factoryFile(0, folder());
        expected["image/fourcc"] = 1;
        expected["image/resolution"] = 2;
        expected["image/out_resolution"] = 10;
        expected["image/codec"] = "png";
        expected["image/shooting_time"] = 7;
        expected["image/quality"] = 64;
        expected["save/type"] = 1;
        expected["save/prefix"] = "扫描";
        expected["save/number"] = 300;
        expected["save/playsound"] = false;
        expected["save/pdf_source"] = false;
        expected["save/merge_source"] = false;
        expected["watermark/text"] = "机密 文件";
        expected["watermark/time"] = true;
        expected["watermark/transparency"] = 15;
        expected["watermark/x"] = 25;
        expected["watermark/y"] = 85;
        expected["painting/percentage"] = 40;
        expected["painting/main_resolution"] = 0;
        expected["painting/other_resolution"] = 11;
        compareFile(expected);

        Config *config = Cache::config;
        QCOMPARE(config->image_codec, QString("png"));
        QCOMPARE(config->save_prefix, QString("扫描"));
        QCOMPARE(config->watermark_text, QString("机密 文件"));
        QCOMPARE(config->save_type, 1);
        QCOMPARE(config->watermark_time, true);
        QCOMPARE(config->painting_other_resolution, 11);
    }

    void savedValuesComeBackOnReopening()
    {
        setUnusualSettings(Cache::config);
        SettingDialog dialog;
        dialog.show();
        dialog.init();
        Form(dialog).saveSetting->click();

        QMap<QString, QVariant> expected{ { "camera/index", 1 },
                                          { "image/fourcc", 1 },
                                          { "image/resolution", 1 },
                                          { "image/out_resolution", 7 },
                                          { "image/codec", "png" },
                                          { "image/shooting_time", 9 },
                                          { "image/quality", 33 },
                                          { "save/type", 1 },
                                          { "save/prefix", "文档" },
                                          { "save/number", 42 },
                                          { "save/playsound", false },
                                          { "save/merge_source", false },
                                          { "save/pdf_source", true },
                                          { "watermark/text", "机密" },
                                          { "watermark/time", true },
                                          { "watermark/color", "ff3366cc" },
                                          { "watermark/font_family", "DejaVu Serif" },
                                          { "watermark/font_size", 24 },
                                          { "watermark/font_styleName", "Bold" },
                                          { "watermark/strikeOut", true },
                                          { "watermark/underline", true },
                                          { "watermark/transparency", 20 },
                                          { "watermark/x", 10 },
                                          { "watermark/y", 90 },
                                          { "painting/percentage", 45 },
                                          { "painting/main_resolution", 2 },
                                          { "painting/other_resolution", 11 } };
        compareFile(expected);

        // A record read from that file fills a new window the same way.
        Config reread;
        QCOMPARE(reread.save_prefix, QString("文档"));
        QCOMPARE(reread.watermark_font_family, QString("DejaVu Serif"));
        Cache::config->init();
        Cache::config->load();
        SettingDialog reopened;
        reopened.show();
        reopened.init();
        const Form ui(reopened);
        QCOMPARE(ui.savePreNameBox->text(), QString("文档"));
        QCOMPARE(ui.watermark_text_box->text(), QString("机密"));
        QCOMPARE(ui.imageResolutionBox->currentText(), QString("800x600"));
        QCOMPARE(ui.painting_other_resolutionBox->currentText(), QString("640x480"));
        QCOMPARE(sampleColor(reopened), QColor(0x33, 0x66, 0xcc));
        QCOMPARE(ui.lbWatermarkDemo->font().styleName(), QString("Bold"));
        QVERIFY(ui.radioButton_Time->isChecked());
    }

    // ---------------------------------------------------- defaults, video

    void defaultsButtonRestoresFileAndFormWithoutSignal()
    {
        setUnusualSettings(Cache::config);
        Cache::config->save();
        QCOMPARE(stored("image/quality").toInt(), 33);

        SettingDialog dialog;
        QSignalSpy reconfig(&dialog, SIGNAL(reConfigVideoSettingSignal()));
        QSignalSpy video(&dialog, SIGNAL(videSettingSignal()));
        dialog.show();
        dialog.init();
        const Form ui(dialog);
        typeInto(ui.watermark_text_box, "未保存");

        ui.btnDefaultSetting->click();

        // The camera choice and the output folder are kept.
        compareFile(factoryFile(1, folder()));
        QCOMPARE(reconfig.count(), 0);
        QCOMPARE(video.count(), 0);
        QVERIFY(dialog.isVisible());

        QCOMPARE(ui.imageFOURCCBox->currentText(), QString("MJPG"));
        QCOMPARE(itemTexts(ui.imageResolutionBox), QStringList({ "2592x1944", "800x600" }));
        QCOMPARE(ui.imageResolutionBox->currentIndex(), 0);
        QCOMPARE(ui.imageOutResolutionBox->currentText(), QString("3264x2448"));
        QCOMPARE(ui.imageCodecBox->currentText(), QString("jpg"));
        QCOMPARE(ui.imageShootingTimeBox->text(), QString("5"));
        QCOMPARE(ui.imageQualityBox->value(), 80);
        QCOMPARE(ui.lbImageQuality->text(), QString("80%"));
        QVERIFY(ui.radioButton_File->isChecked());
        QCOMPARE(ui.savePreNameBox->text(), QString("IMG"));
        QCOMPARE(ui.saveImageNumber->text(), QString("1"));
        QVERIFY(ui.checkBox_Sound->isChecked());
        QVERIFY(ui.checkBox_SavePdfSourceBox->isChecked());
        QVERIFY(ui.checkBox_SaveMergeSourceImageBox->isChecked());
        QCOMPARE(ui.watermark_text_box->text(), QString());
        QVERIFY(ui.radioButton_watermark_text->isChecked());
        QCOMPARE(ui.watermark_transparency_box->value(), 50);
        QCOMPARE(ui.lbWatermarkTransparency->text(), QString("50%"));
        QCOMPARE(ui.lbWatermarkX->text(), QString("50%"));
        QCOMPARE(ui.lbWatermarkY->text(), QString("50%"));
        QCOMPARE(ui.painting_percentage_box->value(), 30);
        QCOMPARE(ui.lbPaintingPercentage->text(), QString("30%"));
        QCOMPARE(ui.painting_mian_resolutionBox->currentText(), QString("2048x1536"));
        QCOMPARE(ui.painting_other_resolutionBox->currentText(), QString("2048x1536"));
        QCOMPARE(sampleColor(dialog), QColor(0, 0, 0));
        const QFont font = ui.lbWatermarkDemo->font();
        QCOMPARE(font.family(), QString("Arial"));
        QCOMPARE(font.pointSize(), 100);
        QCOMPARE(font.styleName(), QString("Regular"));
        QVERIFY(!font.strikeOut());
        QVERIFY(!font.underline());
    }

    void hiddenVideoButtonEmitsVideSettingSignal()
    {
        SettingDialog dialog;
        QSignalSpy reconfig(&dialog, SIGNAL(reConfigVideoSettingSignal()));
        QSignalSpy video(&dialog, SIGNAL(videSettingSignal()));
        dialog.show();
        dialog.init();
        Form(dialog).btnVideoSetting->click();
        QCOMPARE(video.count(), 1);
        QCOMPARE(reconfig.count(), 0);
        QVERIFY(dialog.isVisible());
        QVERIFY(!QFile::exists(iniPath()));
    }

    void customButtonsClickedOnlyLogsTheId()
    {
        SettingDialog dialog;
        QSignalSpy reconfig(&dialog, SIGNAL(reConfigVideoSettingSignal()));
        QSignalSpy video(&dialog, SIGNAL(videSettingSignal()));
        dialog.init();
        QTest::ignoreMessage(QtDebugMsg, "void SettingDialog::customButtonsClicked(int) 7");
        dialog.customButtonsClicked(7);
        QCOMPARE(reconfig.count(), 0);
        QCOMPARE(video.count(), 0);
        QVERIFY(!QFile::exists(iniPath()));
        QCOMPARE(Form(dialog).savePreNameBox->text(), QString("IMG"));
    }

    // ------------------------------------------------------------ extensions

    void shootingModeBoxOffersIntervalThenPageTurn()
    {
        SettingDialog dialog;
        const Form ui(dialog);
        QCOMPARE(itemTexts(ui.shootingModeBox), QStringList({ "按时间间隔", "翻页自动拍摄" }));
        dialog.init();
        QCOMPARE(ui.shootingModeBox->currentIndex(), 0);
        QVERIFY(!ui.checkBox_Perspective->isChecked());
    }

    void extensionControlsLoadFromTheSettings()
    {
        Cache::config->perspective_correction = true;
        Cache::config->shooting_mode = ShootingModePageTurn;
        SettingDialog dialog;
        dialog.init();
        const Form ui(dialog);
        QVERIFY(ui.checkBox_Perspective->isChecked());
        QCOMPARE(ui.shootingModeBox->currentText(), QString("翻页自动拍摄"));

        // A mode this build does not know shows the fixed interval.
        Cache::config->shooting_mode = 7;
        dialog.init();
        QCOMPARE(ui.shootingModeBox->currentIndex(), 0);
    }

    void savingExtensionControlsWritesTheirKeysOnly()
    {
        SettingDialog dialog;
        dialog.show();
        dialog.init();
        const Form ui(dialog);
        ui.checkBox_Perspective->click();
        ui.shootingModeBox->setCurrentIndex(1);
        ui.saveSetting->click();

        QCOMPARE(Cache::config->perspective_correction, true);
        QCOMPARE(Cache::config->shooting_mode, int(ShootingModePageTurn));
        QSettings file(iniPath(), QSettings::IniFormat);
        QCOMPARE(file.allKeys().size(), 31);
        QCOMPARE(file.value("extra/perspective").toString(), QString("true"));
        QCOMPARE(file.value("extra/shooting_mode").toInt(), 1);
    }

    void unchangedExtensionControlsAddNoKey()
    {
        SettingDialog dialog;
        dialog.show();
        dialog.init();
        Form(dialog).saveSetting->click();
        compareFile({});
        QVERIFY(!QSettings(iniPath(), QSettings::IniFormat).childGroups().contains("extra"));
    }

    void defaultsButtonClearsExtensionsAndRemovesTheirKeys()
    {
        Cache::config->perspective_correction = true;
        Cache::config->shooting_mode = ShootingModePageTurn;
        Cache::config->save();
        QVERIFY(stored("extra/perspective").isValid());

        SettingDialog dialog;
        dialog.show();
        dialog.init();
        const Form ui(dialog);
        ui.btnDefaultSetting->click();

        QVERIFY(!ui.checkBox_Perspective->isChecked());
        QCOMPARE(ui.shootingModeBox->currentIndex(), 0);
        QCOMPARE(Cache::config->perspective_correction, false);
        QCOMPARE(Cache::config->shooting_mode, int(ShootingModeInterval));
        compareFile({});
    }

    // ---- recording with sound

    void audioInputBoxOffersTheDefaultThenTheListedInputs()
    {
        SettingDialog dialog;
        dialog.init();
        const Form ui(dialog);
        QCOMPARE(itemTexts(ui.audioInputBox),
                 QStringList({ "系统默认" }) + Microphone::inputNames());
        QCOMPARE(ui.audioInputBox->currentIndex(), 0);
        QVERIFY(!ui.checkBox_RecordAudio->isChecked());
    }

    void audioControlsLoadSaveAndReset()
    {
        Cache::config->record_audio = true;
        SettingDialog dialog;
        dialog.show();
        dialog.init();
        const Form ui(dialog);
        QVERIFY(ui.checkBox_RecordAudio->isChecked());
        ui.saveSetting->click();
        QCOMPARE(stored("extra/record_audio").toString(), QString("true"));
        // The default microphone is stored as no key at all.
        QVERIFY(!stored("extra/audio_input").isValid());

        dialog.show();
        dialog.init();
        ui.btnDefaultSetting->click();
        QVERIFY(!ui.checkBox_RecordAudio->isChecked());
        QCOMPARE(Cache::config->record_audio, false);
        compareFile({});
    }

    void savedMicrophoneThatIsGoneFallsBackToTheDefault()
    {
        Cache::config->audio_input = QStringLiteral("unplugged_usb_microphone");
        SettingDialog dialog;
        dialog.show();
        dialog.init();
        const Form ui(dialog);
        QCOMPARE(ui.audioInputBox->currentIndex(), 0);
        QCOMPARE(ui.audioInputBox->currentText(), QString("系统默认"));
        QCOMPARE(Microphone::resolve(Cache::config->audio_input), QString());
        ui.saveSetting->click();
        QCOMPARE(Cache::config->audio_input, QString());
        QVERIFY(!stored("extra/audio_input").isValid());
    }
};

QTEST_MAIN(tst_SettingDialog)
#include "tst_settingdialog.moc"
