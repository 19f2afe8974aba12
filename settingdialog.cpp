#include "settingdialog.h"
#include "ui_settingdialog.h"

#include "audio/microphone.h"
#include "cache.h"
#include "camerainfo.h"
#include "output/photooutput.h"
#include "safeindex.h"

#include <QButtonGroup>
#include <QColorDialog>
#include <QComboBox>
#include <QDebug>
#include <QFontDialog>
#include <QPalette>

#include <algorithm>

namespace {

QString sizeText(const QSize &size)
{
    return QString("%1x%2").arg(size.width()).arg(size.height());
}

void appendSizes(QComboBox *box, const QList<QSize> &sizes)
{
    for (const QSize &size : sizes)
        box->addItem(sizeText(size), size);
}

QString percentText(int value)
{
    return QString::number(value) + "%";
}

QString throughUtf8(const QString &text)
{
    return QString::fromUtf8(text.toUtf8());
}

// The stored form is AARRGGBB; the alpha is always written as ff, whatever
// the sample carries, and an invalid sample colour counts as black.
QString storedColor(const QColor &color)
{
    const QRgb argb = qRgb(color.red(), color.green(), color.blue());
    return QString::number(argb, 16);
}

} // namespace

SettingDialog::SettingDialog(QWidget *parent) : QDialog(parent), ui(new Ui::SettingDialog)
{
    ui->setupUi(this);
    setWindowFlags(windowFlags() & ~Qt::WindowContextHelpButtonHint);

    saveButtonGroup = new QButtonGroup(this);
    saveButtonGroup->addButton(ui->radioButton_File, 0);
    saveButtonGroup->addButton(ui->radioButton_Time, 1);

    watermakeButtonGroup = new QButtonGroup(this);
    watermakeButtonGroup->addButton(ui->radioButton_watermark_text, 0);
    watermakeButtonGroup->addButton(ui->radioButton_watermark_time, 1);

    // The two source-photo options are stored but nothing acts on them, and
    // the camera's own video window is not offered here: all three stay
    // hidden for the dialog's whole life.
    ui->checkBox_SavePdfSourceBox->hide();
    ui->checkBox_SaveMergeSourceImageBox->hide();
    ui->btnVideoSetting->hide();
}

SettingDialog::~SettingDialog()
{
    delete saveButtonGroup;
    delete ui;
}

void SettingDialog::init()
{
    Config *config = Cache::config;
    fillChoiceLists();

    ui->imageFOURCCBox->setCurrentIndex(config->image_fourcc);
    ui->imageResolutionBox->setCurrentIndex(config->image_resolution);
    ui->imageOutResolutionBox->setCurrentIndex(config->image_out_resolution);
    ui->imageCodecBox->setCurrentText(config->image_codec);

    ui->imageShootingTimeBox->setText(QString::number(config->image_shooting_time));
    ui->imageQualityBox->setValue(config->image_quality);

    if (QAbstractButton *button = saveButtonGroup->button(config->save_type))
        button->setChecked(true);
    ui->savePreNameBox->setText(config->save_prefix);
    ui->saveImageNumber->setText(QString::number(config->save_number));

    ui->checkBox_Sound->setChecked(config->save_playsound);
    ui->checkBox_SavePdfSourceBox->setChecked(config->save_pdf_source);
    ui->checkBox_SaveMergeSourceImageBox->setChecked(config->save_merge_source);

    ui->watermark_text_box->setText(config->watermark_text);
    watermakeButtonGroup->button(config->watermark_time ? 1 : 0)->setChecked(true);

    ui->watermark_transparency_box->setValue(config->watermark_transparency);
    ui->watermark_x_box->setValue(config->watermark_x);
    ui->watermark_y_box->setValue(config->watermark_y);
    ui->painting_percentage_box->setValue(config->painting_percentage);

    ui->painting_mian_resolutionBox->setCurrentIndex(config->painting_main_resolution);
    ui->painting_other_resolutionBox->setCurrentIndex(config->painting_other_resolution);

    // The sample shows the watermark as photos get it; a stored colour that
    // is not a colour name gives an invalid colour, as a cancelled colour
    // choice does.
    setSampleColor(watermarkColour());
    ui->lbWatermarkDemo->setFont(watermarkFont());

    showExtensionSettings();
}

// Every list is refilled from scratch, so opening the window again does
// not repeat its items.
void SettingDialog::fillChoiceLists()
{
    const Config *config = Cache::config;
    ui->imageResolutionBox->clear();
    if (const CameraInfo *camera = cameraAt(config->camera_index))
        appendSizes(ui->imageResolutionBox, camera->supportedResolutions);

    ui->imageCodecBox->clear();
    for (const QString &format : config->iamge_formats)
        ui->imageCodecBox->addItem(format, format);

    for (QComboBox *box : { ui->imageOutResolutionBox, ui->painting_mian_resolutionBox,
                            ui->painting_other_resolutionBox }) {
        box->clear();
        appendSizes(box, config->resolutions);
    }
}

// The controls of the group "增强功能".
void SettingDialog::showExtensionSettings()
{
    const Config *config = Cache::config;
    ui->checkBox_Perspective->setChecked(config->perspective_correction);
    // A mode this build does not know shows the fixed interval.
    ui->shootingModeBox->setCurrentIndex(config->shooting_mode == ShootingModePageTurn
                                                 ? ShootingModePageTurn
                                                 : ShootingModeInterval);
    ui->checkBox_RecordAudio->setChecked(config->record_audio);
    loadAudioInputs(config->audio_input);
}

// The system's default first, then the inputs the sound system lists; a
// saved microphone that is gone shows the default.
void SettingDialog::loadAudioInputs(const QString &saved)
{
    ui->audioInputBox->clear();
    ui->audioInputBox->addItem(QStringLiteral("系统默认"), QString());
    for (const QString &name : Microphone::inputNames())
        ui->audioInputBox->addItem(name, name);
    ui->audioInputBox->setCurrentIndex(
            std::max(0, ui->audioInputBox->findData(Microphone::resolve(saved))));
}

void SettingDialog::setSampleColor(const QColor &color)
{
    QPalette palette;
    palette.setColor(QPalette::WindowText, color);
    ui->lbWatermarkDemo->setPalette(palette);
}

void SettingDialog::customButtonsClicked(int id)
{
    qDebug() << Q_FUNC_INFO << id;
}

void SettingDialog::on_btnVideoSetting_clicked()
{
    emit videSettingSignal();
}

void SettingDialog::on_btnDefaultSetting_clicked()
{
    Cache::config->init();
    Cache::config->save();
    init();
}

void SettingDialog::on_saveSetting_clicked()
{
    Config *config = Cache::config;

    config->image_fourcc = ui->imageFOURCCBox->currentIndex();
    config->image_resolution = ui->imageResolutionBox->currentIndex();
    config->image_out_resolution = ui->imageOutResolutionBox->currentIndex();
    config->image_codec = ui->imageCodecBox->currentText();

    // toInt() gives 0 for text that is not a number, which is what is stored.
    config->image_shooting_time = ui->imageShootingTimeBox->text().toInt(nullptr, 10);

    config->image_quality = ui->imageQualityBox->value();
    config->save_type = saveButtonGroup->checkedId();

    config->save_prefix = throughUtf8(ui->savePreNameBox->text());
    config->save_number = ui->saveImageNumber->text().toInt(nullptr, 10);

    config->save_playsound = ui->checkBox_Sound->isChecked();
    config->save_pdf_source = ui->checkBox_SavePdfSourceBox->isChecked();
    config->save_merge_source = ui->checkBox_SaveMergeSourceImageBox->isChecked();

    config->watermark_text = throughUtf8(ui->watermark_text_box->text());
    config->watermark_time = watermakeButtonGroup->checkedId() == 1;

    config->watermark_transparency = ui->watermark_transparency_box->value();
    config->watermark_x = ui->watermark_x_box->value();
    config->watermark_y = ui->watermark_y_box->value();

    const QFont font = ui->lbWatermarkDemo->font();
    config->watermark_font_family = throughUtf8(font.family());
    config->watermark_font_size = font.pointSize();
    config->watermark_font_styleName = throughUtf8(font.styleName());
    config->watermark_font_strikeOut = font.strikeOut();
    config->watermark_font_underline = font.underline();

    config->watermark_color =
            storedColor(ui->lbWatermarkDemo->palette().color(QPalette::WindowText));

    config->painting_percentage = ui->painting_percentage_box->value();
    config->painting_main_resolution = ui->painting_mian_resolutionBox->currentIndex();
    config->painting_other_resolution = ui->painting_other_resolutionBox->currentIndex();

    config->perspective_correction = ui->checkBox_Perspective->isChecked();
    config->shooting_mode = ui->shootingModeBox->currentIndex();
    config->record_audio = ui->checkBox_RecordAudio->isChecked();
    config->audio_input = ui->audioInputBox->currentData().toString();

    config->save();
    // Always: the receiver re-applies the stored capture settings, and
    // doing so when nothing changed costs nothing.
    emit reConfigVideoSettingSignal();
    close();
}

void SettingDialog::on_imageQualityBox_valueChanged(int value)
{
    ui->lbImageQuality->setText(percentText(value));
}

void SettingDialog::on_watermark_transparency_box_valueChanged(int value)
{
    ui->lbWatermarkTransparency->setText(percentText(value));
}

void SettingDialog::on_watermark_x_box_valueChanged(int value)
{
    ui->lbWatermarkX->setText(percentText(value));
}

void SettingDialog::on_watermark_y_box_valueChanged(int value)
{
    ui->lbWatermarkY->setText(percentText(value));
}

void SettingDialog::on_painting_percentage_box_valueChanged(int value)
{
    ui->lbPaintingPercentage->setText(percentText(value));
}

// The returned colour is applied even when the choice was cancelled: the
// sample then turns invalid and a save stores black.
void SettingDialog::on_btnColorSelect_clicked()
{
    const QColor initial = ui->lbWatermarkDemo->palette().color(QPalette::WindowText);
    setSampleColor(QColorDialog::getColor(initial, this, QString()));
}

void SettingDialog::on_btnFontSelect_clicked()
{
    bool accepted = false;
    const QFont font =
            QFontDialog::getFont(&accepted, ui->lbWatermarkDemo->font(), this, QString());
    if (accepted)
        ui->lbWatermarkDemo->setFont(font);
}
