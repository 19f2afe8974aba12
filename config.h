#ifndef CONFIG_H
#define CONFIG_H

#include <QList>
#include <QSize>
#include <QString>

// How a series of photos is triggered (Config::shooting_mode).
enum ShootingMode {
    ShootingModeInterval = 0, // one photo every image_shooting_time seconds
    ShootingModePageTurn = 1, // one photo each time a new page lies still
};

// The one settings record of the process (Cache::config). Every option is a
// public member that the rest of the program reads and writes directly; the
// 29 persisted ones travel to and from "system.ini" in the working directory
// only through load() and save().
class Config
{
public:
    Config();

    void init();
    void load();
    void save();

    bool isSaveTiff;

    int camera_index;
    int camera_exposure;

    int image_fourcc;
    int image_resolution;
    int image_out_resolution;
    QString image_codec;
    int image_shooting_time;
    int image_quality;

    int save_type;
    QString save_prefix;
    int save_number;
    bool save_playsound;
    bool save_merge_source;
    bool save_pdf_source;

    QString watermark_text;
    bool watermark_time;
    QString watermark_color;
    QString watermark_font_family;
    int watermark_font_size;
    QString watermark_font_styleName;
    bool watermark_font_strikeOut;
    bool watermark_font_underline;
    int watermark_transparency;
    int watermark_x;
    int watermark_y;

    int painting_percentage;
    int painting_main_resolution;
    int painting_other_resolution;

    QString user_documentsLocation;

    // Extensions: off by default. They live in the group "extra" of the
    // settings file, and a key is there only while its value differs from
    // the default, so a first-run file keeps its original keys and an older
    // build reads the file unharmed.
    bool perspective_correction; // sheets cut out by their four corners
    int shooting_mode; // series: 0 fixed interval, 1 on page turn
    bool pdf_ocr; // PDF with a recognised text layer
    bool record_audio; // recordings carry the microphone's sound
    QString audio_input; // the microphone by its device name; empty for the default

    QString exe_path;
    bool isLinuxOS;
    QList<QSize> resolutions;
    QList<QString> iamge_formats;

    QString ini_path;

    QString ini_camera_index;
    QString ini_camera_exposure;
    QString ini_image_fourcc;
    QString ini_image_resolution;
    QString ini_image_out_resolution;
    QString ini_image_codec;
    QString ini_image_shooting_time;
    QString ini_image_quality;
    QString ini_save_type;
    QString ini_save_prefix;
    QString ini_save_number;
    QString ini_save_playsound;
    QString ini_save_merge_source;
    QString ini_save_pdf_source;
    QString ini_watermark_text;
    QString ini_watermark_time;
    QString ini_watermark_color;
    QString ini_watermark_font_family;
    QString ini_watermark_font_size;
    QString ini_watermark_font_styleName;
    QString ini_watermark_font_strikeOut;
    QString ini_watermark_font_underline;
    QString ini_watermark_transparency;
    QString ini_watermark_x;
    QString ini_watermark_y;
    QString ini_painting_percentage;
    QString ini_painting_main_resolution;
    QString ini_painting_other_resolution;
    QString ini_user_documentsLocation;

    QString ini_extra_perspective;
    QString ini_extra_shooting_mode;
    QString ini_extra_pdf_ocr;
    QString ini_extra_record_audio;
    QString ini_extra_audio_input;
};

#endif // CONFIG_H
