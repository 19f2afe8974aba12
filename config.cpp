#include "config.h"

#include <QDir>
#include <QFile>
#include <QSettings>
#include <QStandardPaths>

#include <type_traits>
#include <variant>
#include <vector>

namespace {

using Member = std::variant<int Config::*, bool Config::*, QString Config::*>;

enum class Kind {
    Original, // always in the file; a missing key reads as 0, false or empty
    Extension, // in the file only while not at its default; a missing key reads as the default
};

// One persisted setting. `firstRun` is what init() restores; an invalid one
// means init() keeps the member (it describes this machine, not a preference).
struct Row
{
    QString Config::*key;
    const char *name;
    Member member;
    QVariant atConstruction;
    QVariant firstRun;
    Kind kind = Kind::Original;
};

QString defaultDocumentsLocation()
{
    const QByteArray home = QStandardPaths::writableLocation(QStandardPaths::HomeLocation).toUtf8();
    return QString::fromUtf8(home + "/Veltaro");
}

// Every persisted setting, in the order the file is read and written. Adding
// a setting is one line here (and its two members in the header).
std::vector<Row> settingRows()
{
    const QVariant kept;
    const Kind extension = Kind::Extension;
    return {
        { &Config::ini_camera_index, "camera/index", &Config::camera_index, 0, kept },
        { &Config::ini_camera_exposure, "camera/exposure", &Config::camera_exposure, -3, -3 },
        { &Config::ini_image_fourcc, "image/fourcc", &Config::image_fourcc, 0, 0 },
        { &Config::ini_image_resolution, "image/resolution", &Config::image_resolution, 0, 0 },
        { &Config::ini_image_out_resolution, "image/out_resolution", &Config::image_out_resolution,
          3, 3 },
        { &Config::ini_image_codec, "image/codec", &Config::image_codec, "jpg", "jpg" },
        { &Config::ini_image_shooting_time, "image/shooting_time", &Config::image_shooting_time, 5,
          5 },
        { &Config::ini_image_quality, "image/quality", &Config::image_quality, 0, 80 },
        { &Config::ini_save_type, "save/type", &Config::save_type, 0, 0 },
        { &Config::ini_save_prefix, "save/prefix", &Config::save_prefix, "IMG", "IMG" },
        { &Config::ini_save_number, "save/number", &Config::save_number, 1, 1 },
        { &Config::ini_save_playsound, "save/playsound", &Config::save_playsound, true, true },
        { &Config::ini_save_merge_source, "save/merge_source", &Config::save_merge_source, true,
          true },
        { &Config::ini_save_pdf_source, "save/pdf_source", &Config::save_pdf_source, true, true },
        { &Config::ini_watermark_text, "watermark/text", &Config::watermark_text, "", "" },
        { &Config::ini_watermark_time, "watermark/time", &Config::watermark_time, false, false },
        { &Config::ini_watermark_color, "watermark/color", &Config::watermark_color, "",
          "ff000000" },
        { &Config::ini_watermark_font_family, "watermark/font_family",
          &Config::watermark_font_family, "0", "Arial" },
        { &Config::ini_watermark_font_size, "watermark/font_size", &Config::watermark_font_size, 0,
          100 },
        { &Config::ini_watermark_font_styleName, "watermark/font_styleName",
          &Config::watermark_font_styleName, "0", "Regular" },
        { &Config::ini_watermark_font_strikeOut, "watermark/strikeOut",
          &Config::watermark_font_strikeOut, false, false },
        { &Config::ini_watermark_font_underline, "watermark/underline",
          &Config::watermark_font_underline, false, false },
        { &Config::ini_watermark_transparency, "watermark/transparency",
          &Config::watermark_transparency, 0, 50 },
        { &Config::ini_watermark_x, "watermark/x", &Config::watermark_x, 0, 50 },
        { &Config::ini_watermark_y, "watermark/y", &Config::watermark_y, 0, 50 },
        { &Config::ini_painting_percentage, "painting/percentage", &Config::painting_percentage, 30,
          30 },
        { &Config::ini_painting_main_resolution, "painting/main_resolution",
          &Config::painting_main_resolution, 5, 5 },
        { &Config::ini_painting_other_resolution, "painting/other_resolution",
          &Config::painting_other_resolution, 5, 5 },
        { &Config::ini_user_documentsLocation, "user/documentsLocation",
          &Config::user_documentsLocation, defaultDocumentsLocation(), kept },
        { &Config::ini_extra_perspective, "extra/perspective", &Config::perspective_correction,
          false, false, extension },
        { &Config::ini_extra_shooting_mode, "extra/shooting_mode", &Config::shooting_mode,
          int(ShootingModeInterval), int(ShootingModeInterval), extension },
        { &Config::ini_extra_pdf_ocr, "extra/pdf_ocr", &Config::pdf_ocr, false, false, extension },
        { &Config::ini_extra_record_audio, "extra/record_audio", &Config::record_audio, false,
          false, extension },
        { &Config::ini_extra_audio_input, "extra/audio_input", &Config::audio_input, "", "",
          extension },
    };
}

// Converts as QVariant does: text where a number belongs gives 0, and so on.
void assign(Config &config, const Member &member, const QVariant &value)
{
    std::visit(
            [&](auto field) {
                using T = std::decay_t<decltype(config.*field)>;
                if constexpr (std::is_same_v<T, int>)
                    config.*field = value.toInt();
                else if constexpr (std::is_same_v<T, bool>)
                    config.*field = value.toBool();
                else
                    config.*field = value.toString();
            },
            member);
}

QVariant valueOf(const Config &config, const Member &member)
{
    return std::visit([&](auto field) { return QVariant(config.*field); }, member);
}

// An extension key that is missing, or whose text is not of the setting's
// kind, gives the default.
QVariant readExtension(const Member &member, const QVariant &stored, const QVariant &fallback)
{
    if (!stored.isValid())
        return fallback;
    const QString text = stored.toString().trimmed();
    if (std::holds_alternative<bool Config::*>(member)) {
        const QString word = text.toLower();
        if (word == "true" || word == "1")
            return true;
        if (word == "false" || word == "0")
            return false;
        return fallback;
    }
    if (std::holds_alternative<int Config::*>(member)) {
        bool ok = false;
        const int number = text.toInt(&ok);
        return ok ? QVariant(number) : fallback;
    }
    return text;
}

} // namespace

Config::Config() : isSaveTiff(false), isLinuxOS(false)
{
    for (const Row &row : settingRows()) {
        this->*row.key = row.name;
        assign(*this, row.member, row.atConstruction);
    }
    ini_path = "system.ini";

    load();
}

// First-run defaults. The camera choice and the output folder are kept: they
// describe this machine rather than a preference to restore.
void Config::init()
{
    for (const Row &row : settingRows()) {
        if (row.firstRun.isValid())
            assign(*this, row.member, row.firstRun);
    }
}

// Values are taken as read: a missing key or text where a number belongs
// becomes 0, false or empty, and the file is left as it is.
void Config::load()
{
    if (QFile::exists(ini_path)) {
        QSettings settings(ini_path, QSettings::IniFormat);
        for (const Row &row : settingRows()) {
            const QVariant stored = settings.value(this->*row.key);
            assign(*this, row.member,
                   row.kind == Kind::Extension ? readExtension(row.member, stored, row.firstRun)
                                               : stored);
        }
    } else {
        init();
        save();
    }

    QDir dir(user_documentsLocation);
    if (!dir.exists())
        dir.mkpath(user_documentsLocation);
}

// Extension keys stay out of the file while at their defaults, so a
// first-run file holds the original keys only.
void Config::save()
{
    QSettings settings(ini_path, QSettings::IniFormat);
    for (const Row &row : settingRows()) {
        const QVariant value = valueOf(*this, row.member);
        if (row.kind == Kind::Extension && value == row.firstRun)
            settings.remove(this->*row.key);
        else
            settings.setValue(this->*row.key, value);
    }
}
