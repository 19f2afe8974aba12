// How well sheets of paper on a desk are found and cut out upright: frames
// made here with sheets of known size, place and tilt, at the camera sizes a
// document camera delivers.
#include "threads/imageprocessing.h"

#include <QtTest>

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <vector>

namespace {

struct Sheet
{
    cv::Point2f centre;
    cv::Size2f size; // along the sheet's own sides: width first
    float tilt; // degrees, clockwise on screen
};

struct Scene
{
    std::vector<Sheet> sheets;
};

// The sheet edge is where the grey crosses half way from desk to paper.
constexpr double edgeLevel = 140;
// Desk shown around the cut-out when measuring where the sheet's edges lie.
constexpr int margin = 20;
constexpr double sizeTolerance = 2.0;
constexpr double tiltTolerance = 0.5;

// Lays a sheet on the frame: each pixel takes paper in proportion to how much
// of it the sheet covers, counted on a grid of 4x4 points per pixel, so the
// edges are as sharp and as exactly placed as a focused camera shows them.
void laySheet(cv::Mat &frame, const Sheet &s, const cv::Vec3b &paper)
{
    constexpr int k = 4;
    const cv::RotatedRect r(s.centre, s.size, s.tilt);
    cv::Rect box = r.boundingRect();
    box.x -= 2;
    box.y -= 2;
    box.width += 4;
    box.height += 4;
    box &= cv::Rect(0, 0, frame.cols, frame.rows);

    // Frame pixel (x, y) spans x-0.5..x+0.5; its k*k samples sit at the
    // centres of the fine pixels that cover it.
    cv::Mat fine(box.height * k, box.width * k, CV_8UC1, cv::Scalar(0));
    cv::Point2f p[4];
    r.points(p);
    std::vector<cv::Point> pts;
    for (const cv::Point2f &q : p) {
        const double fx = (q.x - box.x + 0.5) * k - 0.5;
        const double fy = (q.y - box.y + 0.5) * k - 0.5;
        pts.emplace_back(cvRound(fx * 256), cvRound(fy * 256));
    }
    cv::fillConvexPoly(fine, pts, cv::Scalar(255), cv::LINE_8, 8);
    cv::Mat cover;
    cv::resize(fine, cover, box.size(), 0, 0, cv::INTER_AREA);

    for (int y = 0; y < box.height; ++y) {
        const uchar *c = cover.ptr<uchar>(y);
        cv::Vec3b *row = frame.ptr<cv::Vec3b>(box.y + y) + box.x;
        for (int x = 0; x < box.width; ++x) {
            const int a = c[x];
            for (int ch = 0; ch < 3; ++ch)
                row[x][ch] = uchar((row[x][ch] * (255 - a) + paper[ch] * a + 127) / 255);
        }
    }
}

// A dark desk, lit a little unevenly, with the sheets on it and some sensor
// noise over everything.
cv::Mat makeFrame(const QSize &frameSize, const Scene &scene)
{
    cv::Mat frame(frameSize.height(), frameSize.width(), CV_8UC3);
    for (int y = 0; y < frame.rows; ++y) {
        cv::Vec3b *row = frame.ptr<cv::Vec3b>(y);
        const int shade = 8 * y / frame.rows;
        for (int x = 0; x < frame.cols; ++x) {
            const int light = shade + 8 * x / frame.cols;
            row[x] = cv::Vec3b(uchar(32 + light), uchar(32 + light), uchar(37 + light));
        }
    }
    for (const Sheet &s : scene.sheets)
        laySheet(frame, s, cv::Vec3b(236, 240, 240));
    cv::Mat noise(frame.size(), CV_8UC3);
    cv::RNG rng(20240611);
    rng.fill(noise, cv::RNG::NORMAL, 128, 3);
    cv::addWeighted(frame, 1.0, noise, 1.0, -128.0, frame);
    return frame;
}

struct EdgeMeasure
{
    double tilt[4] = { 99, 99, 99, 99 }; // left, right, top, bottom; degrees off straight
    double position[4] = { 0, 0, 0, 0 }; // mean x of left/right, mean y of top/bottom
    int points[4] = { 0, 0, 0, 0 };
};

// Where a grey profile crosses edgeLevel between index i (paper) and the
// neighbour j (desk), to a fraction of a pixel.
double crossing(double gi, double gj, int i, int j)
{
    const double f = (gi - edgeLevel) / (gi - gj);
    return i + f * (j - i);
}

// Fits a line through the points and gives its angle off the vertical
// (vertical true) or off the horizontal, in degrees.
double lineTilt(const std::vector<cv::Point2f> &pts, bool vertical)
{
    cv::Vec4f line;
    cv::fitLine(pts, line, cv::DIST_L2, 0, 0.01, 0.01);
    double deg = vertical ? std::atan2(line[0], line[1]) : std::atan2(line[1], line[0]);
    deg *= 180.0 / CV_PI;
    if (deg > 90)
        deg -= 180;
    if (deg < -90)
        deg += 180;
    return deg;
}

// Measures the sheet's four edges in a cut-out that shows some desk around
// it: from the middle outwards along each row and column, leaving out the
// fifth of each edge next to a corner.
EdgeMeasure measureEdges(const cv::Mat &cut)
{
    cv::Mat grey;
    cv::cvtColor(cut, grey, cv::COLOR_BGR2GRAY);
    const int w = grey.cols, h = grey.rows;
    const int cx = w / 2, cy = h / 2;
    std::vector<cv::Point2f> edge[4];

    const int y0 = margin + (h - 2 * margin) / 5, y1 = h - margin - (h - 2 * margin) / 5;
    for (int y = y0; y <= y1; ++y) {
        const uchar *g = grey.ptr<uchar>(y);
        if (g[cx] <= edgeLevel)
            continue;
        int x = cx;
        while (x > 0 && g[x - 1] > edgeLevel)
            --x;
        if (x > 0)
            edge[0].emplace_back(float(crossing(g[x], g[x - 1], x, x - 1)), float(y));
        x = cx;
        while (x < w - 1 && g[x + 1] > edgeLevel)
            ++x;
        if (x < w - 1)
            edge[1].emplace_back(float(crossing(g[x], g[x + 1], x, x + 1)), float(y));
    }
    const int x0 = margin + (w - 2 * margin) / 5, x1 = w - margin - (w - 2 * margin) / 5;
    for (int x = x0; x <= x1; ++x) {
        if (grey.at<uchar>(cy, x) <= edgeLevel)
            continue;
        int y = cy;
        while (y > 0 && grey.at<uchar>(y - 1, x) > edgeLevel)
            --y;
        if (y > 0)
            edge[2].emplace_back(
                    float(x),
                    float(crossing(grey.at<uchar>(y, x), grey.at<uchar>(y - 1, x), y, y - 1)));
        y = cy;
        while (y < h - 1 && grey.at<uchar>(y + 1, x) > edgeLevel)
            ++y;
        if (y < h - 1)
            edge[3].emplace_back(
                    float(x),
                    float(crossing(grey.at<uchar>(y, x), grey.at<uchar>(y + 1, x), y, y + 1)));
    }

    EdgeMeasure m;
    for (int i = 0; i < 4; ++i) {
        m.points[i] = int(edge[i].size());
        if (edge[i].size() < 20)
            continue;
        const bool vertical = i < 2;
        m.tilt[i] = lineTilt(edge[i], vertical);
        double sum = 0;
        for (const cv::Point2f &p : edge[i])
            sum += vertical ? p.x : p.y;
        m.position[i] = sum / double(edge[i].size());
    }
    return m;
}

QStringList &table()
{
    static QStringList rows;
    return rows;
}

} // namespace

Q_DECLARE_METATYPE(Scene)

class tst_Detection : public QObject
{
    Q_OBJECT

    ImageProcessing ip; // one for all: it waits a moment when destroyed

private slots:
    void initTestCase()
    {
        table() << QString("%1 %2 %3 %4 %5 %6 %7")
                           .arg("frame", -9)
                           .arg("case", -22)
                           .arg("sheet", -16)
                           .arg("cut-out (error)", -20)
                           .arg("centre off", -13)
                           .arg("sheet seen", -18)
                           .arg("edge tilt L/R/T/B (deg)");
    }

    void cleanupTestCase() { qInfo().noquote() << "\n" + table().join('\n'); }

    void sheetsAreFoundAndCutOutUpright_data()
    {
        QTest::addColumn<QSize>("frameSize");
        QTest::addColumn<Scene>("scene");

        const QSize hd(1920, 1080);
        const QSize big(3264, 2448);
        const float tilts[] = { -40, -25, -10, -3, 0, 3, 10, 25, 40 };
        for (float t : tilts) {
            QTest::newRow(qPrintable(QString("1920 landscape %1").arg(double(t))))
                    << hd << Scene{ { { cv::Point2f(961.3f, 538.7f), cv::Size2f(700, 500), t } } };
        }
        for (float t : tilts) {
            QTest::newRow(qPrintable(QString("1920 portrait %1").arg(double(t))))
                    << hd << Scene{ { { cv::Point2f(958.6f, 541.2f), cv::Size2f(500, 700), t } } };
        }
        QTest::newRow("1920 two sheets")
                << hd
                << Scene{ { { cv::Point2f(520.4f, 540.0f), cv::Size2f(640, 460), 3 },
                            { cv::Point2f(1400.0f, 539.5f), cv::Size2f(500, 700), -10 } } };
        QTest::newRow("1920 three sheets")
                << hd
                << Scene{ { { cv::Point2f(330.0f, 540.0f), cv::Size2f(520, 380), -25 },
                            { cv::Point2f(960.5f, 540.5f), cv::Size2f(400, 560), 10 },
                            { cv::Point2f(1590.2f, 540.0f), cv::Size2f(500, 360), 40 } } };

        for (float t : { -40.0f, -10.0f, 0.0f, 3.0f, 25.0f, 40.0f }) {
            QTest::newRow(qPrintable(QString("3264 landscape %1").arg(double(t))))
                    << big
                    << Scene{ { { cv::Point2f(1632.4f, 1223.8f), cv::Size2f(1200, 850), t } } };
        }
        QTest::newRow("3264 portrait -3")
                << big << Scene{ { { cv::Point2f(1631.0f, 1224.5f), cv::Size2f(850, 1200), -3 } } };
        QTest::newRow("3264 two sheets")
                << big
                << Scene{ { { cv::Point2f(900.0f, 1224.0f), cv::Size2f(1200, 850), -25 },
                            { cv::Point2f(2400.3f, 1224.0f), cv::Size2f(800, 1100), 10 } } };
    }

    void sheetsAreFoundAndCutOutUpright()
    {
        QFETCH(QSize, frameSize);
        QFETCH(Scene, scene);
        const cv::Mat frame = makeFrame(frameSize, scene);
        const QString frameName = QString("%1x%2").arg(frameSize.width()).arg(frameSize.height());
        const QString caseName = QString::fromLatin1(QTest::currentDataTag()).section(' ', 1);

        // Every sheet, each matched to the one drawn nearest its centre.
        ip.setCameraCorrection(2);
        const std::vector<cv::RotatedRect> found = ip.findSquares(frame);
        QCOMPARE(found.size(), scene.sheets.size());
        std::vector<bool> taken(scene.sheets.size(), false);
        std::vector<cv::RotatedRect> foundFor(scene.sheets.size());
        for (const cv::RotatedRect &r : found) {
            size_t best = 0;
            double bestDistance = 1e9;
            for (size_t i = 0; i < scene.sheets.size(); ++i) {
                const double d = cv::norm(r.center - scene.sheets[i].centre);
                if (d < bestDistance) {
                    bestDistance = d;
                    best = i;
                }
            }
            QVERIFY2(bestDistance < 3,
                     qPrintable(QString("found centre %1 px from the nearest sheet")
                                        .arg(bestDistance)));
            QVERIFY2(!taken[best], "two rectangles for one sheet");
            taken[best] = true;
            foundFor[best] = r;
            const Sheet &sheet = scene.sheets[best];

            const cv::Mat cut = ImageProcessing::deskewCutOut(frame, r);
            const double dw = cut.cols - sheet.size.width;
            const double dh = cut.rows - sheet.size.height;

            // The same turn with desk around it, to see where the edges lie.
            const cv::RotatedRect wider(
                    r.center, cv::Size2f(r.size.width + 2 * margin, r.size.height + 2 * margin),
                    r.angle);
            const cv::Mat around = ImageProcessing::deskewCutOut(frame, wider);
            QCOMPARE(around.size(), cv::Size(cut.cols + 2 * margin, cut.rows + 2 * margin));
            const EdgeMeasure m = measureEdges(around);
            // The sheet's centre against the cut-out's, in the cut-out.
            const double offX = (m.position[0] + m.position[1]) / 2 - margin - (cut.cols - 1) / 2.0;
            const double offY = (m.position[2] + m.position[3]) / 2 - margin - (cut.rows - 1) / 2.0;

            table() << QString("%1 %2 %3 %4 %5 %6 %7")
                               .arg(frameName, -9)
                               .arg(caseName, -22)
                               .arg(QString("%1x%2 @%3")
                                            .arg(double(sheet.size.width))
                                            .arg(double(sheet.size.height))
                                            .arg(double(sheet.tilt)),
                                    -16)
                               .arg(QString("%1x%2 (%3/%4)")
                                            .arg(cut.cols)
                                            .arg(cut.rows)
                                            .arg(dw, 0, 'f', 0)
                                            .arg(dh, 0, 'f', 0),
                                    -20)
                               .arg(QString("%1/%2").arg(offX, 0, 'f', 2).arg(offY, 0, 'f', 2), -13)
                               .arg(QString("%1x%2")
                                            .arg(m.position[1] - m.position[0], 0, 'f', 1)
                                            .arg(m.position[3] - m.position[2], 0, 'f', 1),
                                    -18)
                               .arg(QString("%1 %2 %3 %4")
                                            .arg(m.tilt[0], 5, 'f', 2)
                                            .arg(m.tilt[1], 5, 'f', 2)
                                            .arg(m.tilt[2], 5, 'f', 2)
                                            .arg(m.tilt[3], 5, 'f', 2));

            QVERIFY2(std::abs(dw) <= sizeTolerance && std::abs(dh) <= sizeTolerance,
                     qPrintable(QString("cut-out %1x%2 for a sheet of %3x%4")
                                        .arg(cut.cols)
                                        .arg(cut.rows)
                                        .arg(double(sheet.size.width))
                                        .arg(double(sheet.size.height))));
            for (int i = 0; i < 4; ++i) {
                QVERIFY2(
                        m.points[i] >= 20,
                        qPrintable(
                                QString("edge %1 seen at %2 points only").arg(i).arg(m.points[i])));
                QVERIFY2(std::abs(m.tilt[i]) <= tiltTolerance,
                         qPrintable(QString("edge %1 of the cut-out is %2 degrees off straight")
                                            .arg(i)
                                            .arg(m.tilt[i])));
            }
            QVERIFY2(std::abs(offX) <= sizeTolerance && std::abs(offY) <= sizeTolerance,
                     qPrintable(QString("sheet lies %1/%2 px off the cut-out's centre")
                                        .arg(offX)
                                        .arg(offY)));
        }

        // The single correction gives the largest sheet.
        ip.setCameraCorrection(1);
        const std::vector<cv::RotatedRect> single = ip.findSquares(frame);
        QCOMPARE(single.size(), size_t(1));
        const auto largest = std::max_element(
                scene.sheets.begin(), scene.sheets.end(),
                [](const Sheet &a, const Sheet &b) { return a.size.area() < b.size.area(); });
        const cv::RotatedRect &expected = foundFor[size_t(largest - scene.sheets.begin())];
        QVERIFY2(single[0].center == expected.center && single[0].size == expected.size
                         && single[0].angle == expected.angle,
                 qPrintable(QString("single sheet found at %1,%2")
                                    .arg(double(single[0].center.x))
                                    .arg(double(single[0].center.y))));
    }
};

QTEST_GUILESS_MAIN(tst_Detection)
#include "tst_detection.moc"
