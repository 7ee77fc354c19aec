// How readable a colour is on another: WCAG's contrast ratio, from 1 (the same) to 21 (black on
// white), with a translucent colour seen over the background. Pure.
#pragma once

#include <QColor>

namespace corvane::ui {

double contrastRatio(const QColor& foreground, const QColor& background);

}  // namespace corvane::ui
