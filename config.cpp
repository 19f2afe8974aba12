#include "config.h"

#include <QDir>
#include <QFile>
#include <QSettings>
#include <QStandardPaths>

Config::Config()
    : isSaveTiff(false),
      camera_index(0),
      camera_exposure(-3),
      image_fourcc(0),
      image_resolution(0),
      image_out_resolution(3),
      image_codec("jpg"),
      image_shooting_time(5),
      image_quality(0),
      save_type(0),
      save_prefix("IMG"),
      save_number(1),
      save_playsound(true),
      save_merge_source(true),
      save_pdf_source(true),
      watermark_text(""),
      watermark_time(false),
      watermark_color(""),
      watermark_font_family("0"),
      watermark_font_size(0),
      watermark_font_styleName("0"),
      watermark_font_strikeOut(false),
      watermark_font_underline(false),
      watermark_transparency(0),
      watermark_x(0),
      watermark_y(0),
      painting_percentage(30),
      painting_main_resolution(5),
      painting_other_resolution(5),
      perspective_correction(false),
      shooting_mode(ShootingModeInterval),
      pdf_ocr(false),
      isLinuxOS(false)
{
    const QByteArray home =
        QStandardPaths::writableLocation(QStandardPaths::HomeLocation).toUtf8();
    user_documentsLocation = QString::fromUtf8(home + "/Veltaro");

    ini_path = "system.ini";

    ini_camera_index = "camera/index";
    ini_camera_exposure = "camera/exposure";
    ini_image_fourcc = "image/fourcc";
    ini_image_resolution = "image/resolution";
    ini_image_out_resolution = "image/out_resolution";
    ini_image_codec = "image/codec";
    ini_image_shooting_time = "image/shooting_time";
    ini_image_quality = "image/quality";
    ini_save_type = "save/type";
    ini_save_prefix = "save/prefix";
    ini_save_number = "save/number";
    ini_save_playsound = "save/playsound";
    ini_save_merge_source = "save/merge_source";
    ini_save_pdf_source = "save/pdf_source";
    ini_watermark_text = "watermark/text";
    ini_watermark_time = "watermark/time";
    ini_watermark_color = "watermark/color";
    ini_watermark_font_family = "watermark/font_family";
    ini_watermark_font_size = "watermark/font_size";
    ini_watermark_font_styleName = "watermark/font_styleName";
    ini_watermark_font_strikeOut = "watermark/strikeOut";
    ini_watermark_font_underline = "watermark/underline";
    ini_watermark_transparency = "watermark/transparency";
    ini_watermark_x = "watermark/x";
    ini_watermark_y = "watermark/y";
    ini_painting_percentage = "painting/percentage";
    ini_painting_main_resolution = "painting/main_resolution";
    ini_painting_other_resolution = "painting/other_resolution";
    ini_user_documentsLocation = "user/documentsLocation";

    ini_extra_perspective = "extra/perspective";
    ini_extra_shooting_mode = "extra/shooting_mode";
    ini_extra_pdf_ocr = "extra/pdf_ocr";

    load();
}

// First-run defaults. The camera choice and the output folder are kept: they
// describe this machine rather than a preference to restore.
void Config::init()
{
    camera_exposure = -3;
    image_fourcc = 0;
    image_resolution = 0;
    image_out_resolution = 3;
    image_codec = "jpg";
    image_shooting_time = 5;
    image_quality = 80;
    save_type = 0;
    save_prefix = "IMG";
    save_number = 1;
    save_playsound = true;
    save_merge_source = true;
    save_pdf_source = true;
    watermark_text = "";
    watermark_time = false;
    watermark_color = "ff000000";
    watermark_font_family = "Arial";
    watermark_font_size = 100;
    watermark_font_styleName = "Regular";
    watermark_font_strikeOut = false;
    watermark_font_underline = false;
    watermark_transparency = 50;
    watermark_x = 50;
    watermark_y = 50;
    painting_percentage = 30;
    painting_main_resolution = 5;
    painting_other_resolution = 5;
    initExtensions();
}

void Config::initExtensions()
{
    perspective_correction = false;
    shooting_mode = ShootingModeInterval;
    pdf_ocr = false;
}

// Values are taken as read: a missing key or text where a number belongs
// becomes 0, false or empty, and the file is left as it is.
void Config::load()
{
    if (QFile::exists(ini_path)) {
        QSettings settings(ini_path, QSettings::IniFormat);
        camera_index = settings.value(ini_camera_index).toInt();
        camera_exposure = settings.value(ini_camera_exposure).toInt();
        image_fourcc = settings.value(ini_image_fourcc).toInt();
        image_resolution = settings.value(ini_image_resolution).toInt();
        image_out_resolution = settings.value(ini_image_out_resolution).toInt();
        image_codec = settings.value(ini_image_codec).toString();
        image_shooting_time = settings.value(ini_image_shooting_time).toInt();
        image_quality = settings.value(ini_image_quality).toInt();
        save_type = settings.value(ini_save_type).toInt();
        save_prefix = settings.value(ini_save_prefix).toString();
        save_number = settings.value(ini_save_number).toInt();
        save_playsound = settings.value(ini_save_playsound).toBool();
        save_merge_source = settings.value(ini_save_merge_source).toBool();
        save_pdf_source = settings.value(ini_save_pdf_source).toBool();
        watermark_text = settings.value(ini_watermark_text).toString();
        watermark_time = settings.value(ini_watermark_time).toBool();
        watermark_color = settings.value(ini_watermark_color).toString();
        watermark_font_family = settings.value(ini_watermark_font_family).toString();
        watermark_font_size = settings.value(ini_watermark_font_size).toInt();
        watermark_font_styleName = settings.value(ini_watermark_font_styleName).toString();
        watermark_font_strikeOut = settings.value(ini_watermark_font_strikeOut).toBool();
        watermark_font_underline = settings.value(ini_watermark_font_underline).toBool();
        watermark_transparency = settings.value(ini_watermark_transparency).toInt();
        watermark_x = settings.value(ini_watermark_x).toInt();
        watermark_y = settings.value(ini_watermark_y).toInt();
        painting_percentage = settings.value(ini_painting_percentage).toInt();
        painting_main_resolution = settings.value(ini_painting_main_resolution).toInt();
        painting_other_resolution = settings.value(ini_painting_other_resolution).toInt();
        user_documentsLocation = settings.value(ini_user_documentsLocation).toString();
        loadExtensions(settings);
    } else {
        init();
        save();
    }

    QDir dir(user_documentsLocation);
    if (!dir.exists())
        dir.mkpath(user_documentsLocation);
}

void Config::save()
{
    QSettings settings(ini_path, QSettings::IniFormat);
    settings.setValue(ini_camera_index, camera_index);
    settings.setValue(ini_camera_exposure, camera_exposure);
    settings.setValue(ini_image_fourcc, image_fourcc);
    settings.setValue(ini_image_resolution, image_resolution);
    settings.setValue(ini_image_out_resolution, image_out_resolution);
    settings.setValue(ini_image_codec, image_codec);
    settings.setValue(ini_image_shooting_time, image_shooting_time);
    settings.setValue(ini_image_quality, image_quality);
    settings.setValue(ini_save_type, save_type);
    settings.setValue(ini_save_prefix, save_prefix);
    settings.setValue(ini_save_number, save_number);
    settings.setValue(ini_save_playsound, save_playsound);
    settings.setValue(ini_save_merge_source, save_merge_source);
    settings.setValue(ini_save_pdf_source, save_pdf_source);
    settings.setValue(ini_watermark_text, watermark_text);
    settings.setValue(ini_watermark_time, watermark_time);
    settings.setValue(ini_watermark_color, watermark_color);
    settings.setValue(ini_watermark_font_family, watermark_font_family);
    settings.setValue(ini_watermark_font_size, watermark_font_size);
    settings.setValue(ini_watermark_font_styleName, watermark_font_styleName);
    settings.setValue(ini_watermark_font_strikeOut, watermark_font_strikeOut);
    settings.setValue(ini_watermark_font_underline, watermark_font_underline);
    settings.setValue(ini_watermark_transparency, watermark_transparency);
    settings.setValue(ini_watermark_x, watermark_x);
    settings.setValue(ini_watermark_y, watermark_y);
    settings.setValue(ini_painting_percentage, painting_percentage);
    settings.setValue(ini_painting_main_resolution, painting_main_resolution);
    settings.setValue(ini_painting_other_resolution, painting_other_resolution);
    settings.setValue(ini_user_documentsLocation, user_documentsLocation);
    saveExtensions(settings);
}

namespace {

// A missing extension key, or one whose text is not of the setting's kind,
// gives the default (the original keys give 0 instead).
bool readExtension(const QSettings &settings, const QString &key, bool fallback)
{
    const QVariant value = settings.value(key);
    if (!value.isValid())
        return fallback;
    const QString text = value.toString().trimmed().toLower();
    if (text == "true" || text == "1")
        return true;
    if (text == "false" || text == "0")
        return false;
    return fallback;
}

int readExtension(const QSettings &settings, const QString &key, int fallback)
{
    bool ok = false;
    const int number = settings.value(key).toString().trimmed().toInt(&ok);
    return ok ? number : fallback;
}

template <typename T>
void writeExtension(QSettings &settings, const QString &key, const T &value, const T &fallback)
{
    if (value == fallback)
        settings.remove(key);
    else
        settings.setValue(key, value);
}

} // namespace

void Config::loadExtensions(const QSettings &settings)
{
    perspective_correction = readExtension(settings, ini_extra_perspective, false);
    shooting_mode = readExtension(settings, ini_extra_shooting_mode, int(ShootingModeInterval));
    pdf_ocr = readExtension(settings, ini_extra_pdf_ocr, false);
}

void Config::saveExtensions(QSettings &settings) const
{
    writeExtension(settings, ini_extra_perspective, perspective_correction, false);
    writeExtension(settings, ini_extra_shooting_mode, shooting_mode, int(ShootingModeInterval));
    writeExtension(settings, ini_extra_pdf_ocr, pdf_ocr, false);
}
