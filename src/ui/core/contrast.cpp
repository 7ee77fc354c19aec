#include "ui/core/contrast.h"

#include <algorithm>
#include <cmath>

namespace corvane::ui {
namespace {

double luminance(const QColor& color) {
    auto channel = [](double value) {
        return value <= 0.03928 ? value / 12.92 : std::pow((value + 0.055) / 1.055, 2.4);
    };
    return 0.2126 * channel(color.redF()) + 0.7152 * channel(color.greenF()) +
           0.0722 * channel(color.blueF());
}

}  // namespace

double contrastRatio(const QColor& foreground, const QColor& background) {
    double alpha = foreground.alphaF();
    QColor seen = QColor::fromRgbF(foreground.redF() * alpha + background.redF() * (1 - alpha),
                                   foreground.greenF() * alpha + background.greenF() * (1 - alpha),
                                   foreground.blueF() * alpha + background.blueF() * (1 - alpha));
    double a = luminance(seen), b = luminance(background);
    return (std::max(a, b) + 0.05) / (std::min(a, b) + 0.05);
}

}  // namespace corvane::ui
