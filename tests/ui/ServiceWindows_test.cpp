#include <gtest/gtest.h>

#include <QApplication>
#include <QClipboard>
#include <QDir>
#include <QPainter>
#include <QProcess>
#include <QTest>

#include <memory>
#include <string>
#include <vector>

#include "ScopedScheme.h"
#include "platform/linux/CurlHttpClient.h"
#include "services/HttpTestServer.h"
#include "services/QrCode.h"
#include "services/ServiceTestSupport.h"
#include "support/ScopedEnvironment.h"
#include "ui/AboutVantorixView.h"
#include "ui/FeedbackFormView.h"
#include "ui/QtMainExecutor.h"

namespace vantorix::ui {
namespace {

using vantorix::testing::Gate;
using vantorix::testing::HttpTestServer;
using vantorix::testing::ScopedLanguage;
using vantorix::testing::TemporaryFolder;

constexpr const char* kContactLink = "https://u.wechat.com/vantorix-support";

// Both languages in the light and the dark scheme.
struct Look {
    const char* lang;
    bool dark;
};
const Look kLooks[] = {{"en_US.UTF-8", false}, {"en_US.UTF-8", true}, {"zh_CN.UTF-8", false}, {"zh_CN.UTF-8", true}};
std::string lookName(const Look& look) {
    return std::string(look.lang).substr(0, 2) + (look.dark ? "-dark" : "-light");
}
bool english(const Look& look) { return std::string(look.lang).starts_with("en"); }

// Saves the window with its open alert drawn on top, as a person sees the pair.
void screenshot(QWidget* window, QWidget* alert, const std::string& name) {
    QDir().mkpath(QStringLiteral(VANTORIX_SCREENSHOT_DIR));
    QPixmap picture = window->grab();
    if (alert != nullptr) {
        QPainter painter(&picture);
        const QPixmap over = alert->grab();
        painter.drawPixmap((window->width() - alert->width()) / 2, 40, over);
    }
    EXPECT_TRUE(picture.save(QStringLiteral(VANTORIX_SCREENSHOT_DIR "/") + QString::fromStdString(name) + ".png"));
}

struct RecordingOpener final : services::FileOpener {
    std::vector<std::string> opened;
    void open(const std::string& path) override { opened.push_back(path); }
};

// The web service on loopback, reached through the real libcurl client.
struct Service {
    HttpTestServer server;
    std::shared_ptr<QtMainExecutor> main = std::make_shared<QtMainExecutor>();
    std::shared_ptr<CurlHttpClient> client = std::make_shared<CurlHttpClient>();
    services::ServiceConfiguration configuration{server.url(""), "vx7k2m9q4r8t1w5y3z6b0c2d4", kContactLink};
};

// What zbarimg reads from the code as shown, enlarged whole-pixel-wise and framed in white as a
// camera would see it on the screen.
std::string decoded(const QImage& code) {
    TemporaryFolder folder;
    QImage framed(code.width() * 4 + 64, code.height() * 4 + 64, QImage::Format_RGB32);
    framed.fill(Qt::white);
    QPainter(&framed).drawImage(32, 32, code.scaled(code.size() * 4, Qt::IgnoreAspectRatio, Qt::FastTransformation));
    const QString file = QString::fromStdString((folder.path() / "qr.png").string());
    framed.save(file);
    QProcess zbar;
    zbar.start(QStringLiteral("zbarimg"), {QStringLiteral("--quiet"), QStringLiteral("--raw"), file});
    zbar.waitForFinished(20000);
    return zbar.readAllStandardOutput().trimmed().toStdString();
}

TEST(AboutVantorixView, QrCodeIsSharpAndDecodesToTheContactLinkAtScaleOneAndTwo) {
    Service service;
    const auto checker = services::UpdateChecker::create({service.client, service.main, service.configuration, "1.0"});
    AboutVantorixView view({checker, kContactLink, "1.0", "7", nullptr, nullptr});
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    const QImage code = view.qrImage();
    const int pixels = static_cast<int>(std::lround(64 * view.devicePixelRatioF()));
    ASSERT_EQ(code.size(), QSize(pixels, pixels));
    for (int y = 0; y < code.height(); ++y)
        for (int x = 0; x < code.width(); ++x) ASSERT_TRUE(qGray(code.pixel(x, y)) % 255 == 0) << x << "," << y;
    EXPECT_EQ(decoded(code), kContactLink);
    EXPECT_FALSE(view.qrFailureNote()->isVisible());
    // The bitmap a screen at the other scale gets (128 device pixels at 2, 64 at 1).
    const int other = pixels == 64 ? 128 : 64;
    const auto bitmap = services::qrBitmap(*services::qrCode(kContactLink), other);
    QImage otherCode(other, other, QImage::Format_Grayscale8);
    for (int y = 0; y < other; ++y)
        for (int x = 0; x < other; ++x) {
            otherCode.scanLine(y)[x] = bitmap[static_cast<std::size_t>(y * other + x)] ? 0 : 255;
        }
    EXPECT_EQ(decoded(otherCode), kContactLink);
}

// The About window checks once however often it is asked, and downloads what it offers; the
// feedback form keeps its fields within their limits and sends once.
TEST(ServiceWindows, AboutChecksOnceAndDownloadsAndFeedbackIsLimitedAndSentOnce) {
    for (const Look& look : kLooks) {
        SCOPED_TRACE(lookName(look));
        const ScopedLanguage language(look.lang);
        const ScopedScheme scheme(look.dark);
        Service service;
        Gate checking, submitting;
        std::string offered = "2.0";
        service.server.get(
            "/api/products/vx7k2m9q4r8t1w5y3z6b0c2d4", [&](const httplib::Request&, httplib::Response& response) {
                checking.wait();
                response.set_content(R"({"id":"p","currentVersion":")" + offered + R"(","downloadUrl":")" +
                                         service.server.url("/files/vantorix-2.0.deb") + "\"}",
                                     "application/json");
            });
        service.server.get("/files/vantorix-2.0.deb", [](const httplib::Request&, httplib::Response& response) {
            response.set_content("package", "application/octet-stream");
        });
        TemporaryFolder downloads;
        const auto opener = std::make_shared<RecordingOpener>();
        const auto checker = services::UpdateChecker::create(
            {service.client, service.main, service.configuration, "1.9.9"});
        AboutVantorixView about({checker, kContactLink, "1.9.9", "42", [&] { return downloads.string(); }, opener});
        about.resize(420, 380);
        about.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&about));
        const std::string suffix = lookName(look);

        // The second press while the first check waits for the server starts nothing.
        QTest::mouseClick(about.checkUpdateButton(), Qt::LeftButton);
        QTest::mouseClick(about.checkUpdateButton(), Qt::LeftButton);
        ASSERT_TRUE(service.server.waitForRequests(1, std::chrono::seconds(10)));
        screenshot(&about, nullptr, "about-checking-" + suffix);
        checking.open();
        ASSERT_TRUE(QTest::qWaitFor([&] { return about.openAlert() != nullptr; }, 10000));
        EXPECT_EQ(about.openAlert()->text().toStdString(), english(look) ? "New version found 2.0" : "发现新版本 2.0");
        EXPECT_EQ(service.server.requests().size(), 1u);
        screenshot(&about, about.openAlert(), "about-download-prompt-" + suffix);
        QPointer<QMessageBox> question = about.openAlert();

        // "Download" saves the file in the Downloads folder and hands it to the opener.
        QTest::keyClick(question, Qt::Key_Return);
        ASSERT_TRUE(QTest::qWaitFor([&] { return !opener->opened.empty() && about.openAlert() == nullptr; }, 10000));
        EXPECT_EQ(opener->opened, std::vector<std::string>{(downloads.path() / "vantorix-2.0.deb").string()});

        offered = "1.9.9";
        QTest::mouseClick(about.checkUpdateButton(), Qt::LeftButton);
        ASSERT_TRUE(QTest::qWaitFor([&] { return about.openAlert() != nullptr; }, 10000));
        EXPECT_EQ(about.openAlert()->text().toStdString(), english(look) ? "Already up to date" : "当前已是最新版本");
        screenshot(&about, about.openAlert(), "about-up-to-date-" + suffix);
        about.openAlert()->close();

        service.server.post("/api/feedback", [&](const httplib::Request&, httplib::Response& response) {
            submitting.wait();
            response.status = 201;
            response.set_content(R"({"success":true,"id":"abc"})", "application/json");
        });
        FeedbackFormView form(
            services::FeedbackSubmitter::create({service.client, service.main, service.configuration}));
        form.resize(520, 560);
        form.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&form));
        screenshot(&form, nullptr, "feedback-empty-" + suffix);

        // Typing past 100 characters drops the rest; a paste of 2,500 keeps the first 2,000.
        form.titleField()->setFocus();
        QTest::keyClicks(form.titleField(), QString(101, QLatin1Char('t')));
        EXPECT_EQ(form.titleField()->text().size(), 100);
        QApplication::clipboard()->setText(QString(2500, QChar(0x6587)));  // 文
        form.contentField()->setFocus();
        form.contentField()->paste();
        EXPECT_EQ(form.contentField()->toPlainText(), QString(2000, QChar(0x6587)));

        // A short title is refused before anything is sent.
        form.titleField()->setText(QStringLiteral("  abcd  "));
        QTest::mouseClick(form.submitButton(), Qt::LeftButton);
        ASSERT_NE(form.openAlert(), nullptr);
        screenshot(&form, form.openAlert(), "feedback-invalid-" + suffix);
        form.openAlert()->close();
        ASSERT_TRUE(QTest::qWaitFor([&] { return form.openAlert() == nullptr; }, 10000));

        form.titleField()->setText(QStringLiteral("Graph export"));
        form.typePicker()->setCurrentIndex(1);
        form.emailField()->setText(QStringLiteral("someone@example.org"));
        QTest::mouseClick(form.submitButton(), Qt::LeftButton);
        QTest::mouseClick(form.submitButton(), Qt::LeftButton);  // in flight: nothing more is sent
        ASSERT_TRUE(service.server.waitForRequests(4, std::chrono::seconds(10)));
        EXPECT_TRUE(form.progressIndicator()->isVisible());
        screenshot(&form, nullptr, "feedback-submitting-" + suffix);
        submitting.open();
        ASSERT_TRUE(QTest::qWaitFor([&] { return form.openAlert() != nullptr; }, 10000));
        EXPECT_EQ(form.openAlert()->text().toStdString(),
                  english(look) ? "Submitted successfully. Feedback ID: abc" : "提交成功，反馈ID：abc");
        EXPECT_EQ(service.server.requests().size(), 4u);
        EXPECT_FALSE(form.progressIndicator()->isVisible());
        EXPECT_TRUE(form.titleField()->text().isEmpty());
        EXPECT_TRUE(form.contentField()->toPlainText().isEmpty());
        EXPECT_EQ(form.typePicker()->currentIndex(), 0);
        screenshot(&form, form.openAlert(), "feedback-accepted-" + suffix);
        form.openAlert()->close();
    }
}

}  // namespace
}  // namespace vantorix::ui
