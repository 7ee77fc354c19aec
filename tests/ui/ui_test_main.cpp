// The views need one QApplication for the whole run, on the offscreen platform, so that the
// tests run without a display.
#include <gtest/gtest.h>

#include <QApplication>

#include "ui/core/preview_content.h"

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    corvane::ui::preferFfmpegMediaBackend();
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
