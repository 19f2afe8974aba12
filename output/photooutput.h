#ifndef PHOTOOUTPUT_H
#define PHOTOOUTPUT_H

#include <QString>

class QColor;
class QDateTime;
class QFont;
class QImage;
class QPainter;

// How every file the program makes from pictures is named, and the
// watermark every saved photo carries: one rule each, shared by photos,
// joined images and PDF/TIFF files.

// The next output file name in the output folder for a file of the given
// format (also its extension): numbered "<prefix>_<n>.<format>", counting
// save_number up, or by the local time "yyyy_MM_dd HH_mm_ss.zzz.<format>".
QString nextOutputFileName(const QString &format);
// The same, with now as the time a name by time is made of.
QString nextOutputFileName(const QString &format, const QDateTime &now);

// The file a recording started at now goes to: the documents folder,
// named by the local time "yyyy_MM_dd_HH_mm_ss.zzz.avi".
QString recordingFileName(const QDateTime &now);

// The watermark text the settings ask for: the local time when time
// stamping is on, else the configured text; empty for no watermark.
QString watermarkText();
// The same, with now as the time stamped.
QString watermarkText(const QDateTime &now);

// Writes a photo's picture to fileName in the given format at the
// configured quality, replacing a file of that name; a picture that cannot
// be written is logged.
void writePhoto(const QImage &image, const QString &fileName, const QString &format);

// The watermark's colour and font as the settings give them; a stored colour
// that is not a colour name gives an invalid colour.
QColor watermarkColour();
QFont watermarkFont();

// Draws text as the watermark on img through its open painter p: centred
// and moved by the position settings, in the configured colour, font and
// transparency. Leaves p's opacity at the watermark's.
void drawWatermark(QImage &img, QPainter &p, const QString &text);

#endif // PHOTOOUTPUT_H
