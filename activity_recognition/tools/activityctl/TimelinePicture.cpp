// SPDX-License-Identifier: Apache-2.0
// Draws a timeline as SVG: text as text, shapes besides colours, both colour schemes.
#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <set>

#include "Text.h"
#include "Timeline.h"

namespace activityctl {
namespace {

// In user units, which are pixels where the picture is shown in its own size.
constexpr double kMargin = 10;
constexpr double kCharacter = 6.7;
constexpr double kLine = 13;
constexpr double kBar = 7;  // one of the module's
constexpr double kThinBar = 4;
constexpr double kNarrowest = 22;  // column
constexpr double kNarrowestPicture = 420;
constexpr double kSecond = 400;
constexpr double kLongestGap = 90;  // what takes longer is cut short, and marked
constexpr const char* kClock = "seconds of the module's clock";

// Colours that people with any colour vision can tell apart, each with a shape of its own.
constexpr const char* kStyle = R"(<style>
text{font:11px sans-serif;fill:#1a1a1a}
.name{font-weight:bold;font-size:13px}
.quiet{fill:#555}
.back{fill:#fff}
.lane{fill:#f2f2f2}
.grid{stroke:#ddd}
.axis{stroke:#555;fill:none}
.life{stroke:#888}
.enabled{fill:#0072b2;stroke:#0072b2}
.orphan{fill:none;stroke:#0072b2;stroke-dasharray:4 2}
.request{fill:#56b4e9;stroke:#56b4e9}
.batch{fill:#e69f00}
.delivery{fill:#009e73}
.flow{stroke:#009e73;stroke-opacity:.6}
.death{stroke:#d55e00;stroke-width:3}
.left{fill:none;stroke:#888;stroke-width:2}
@media (prefers-color-scheme:dark){
text{fill:#eee}
.quiet{fill:#aaa}
.back{fill:#14171a}
.lane{fill:#1e2226}
.grid{stroke:#343a40}
.axis{stroke:#aaa}
.orphan{stroke:#56b4e9}
}
</style>
)";

// For an element's content.
std::string escape(const std::string& text) {
    std::string escaped;
    for (const char c : printable(text)) {
        switch (c) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            default:
                escaped += c;
        }
    }
    // U+FFFE and U+FFFF are no characters in XML.
    for (const char* none : {"\xef\xbf\xbe", "\xef\xbf\xbf"}) {
        for (size_t at; (at = escaped.find(none)) != std::string::npos;)
            escaped.replace(at, 3, "?");
    }
    return escaped;
}

double widthOf(const std::string& text) {
    return kCharacter * double(std::count_if(text.begin(), text.end(),
                                             [](char c) { return (c & 0xc0) != 0x80; }));
}

class Picture {
  public:
    explicit Picture(const Timeline& timeline)
        : mTimeline(timeline),
          mShowsClock(timeline.even && !timeline.clock.empty()),
          mAxis(timeline.even ? 30 + mShowsClock * kLine : 58) {
        placeNames();
        placeColumns();
        placeRows();
    }

    std::string draw() {
        drawAxis();
        for (size_t i = 0; i < mTimeline.lanes.size(); ++i) drawLane(i);
        drawFlows();
        for (size_t i = 0; i < mTimeline.lanes.size(); ++i) drawMarks(i);
        const double height = drawLegend(mBottom + kLine + 4) + kMargin;
        return fmt::format(
                       "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 {0:.0f} {1:.0f}\" "
                       "width=\"{0:.0f}\" height=\"{1:.0f}\" role=\"img\">\n"
                       "<title>Who asked for what, and who got it</title>\n{2}"
                       "<rect class=\"back\" width=\"{0:.0f}\" height=\"{1:.0f}\"/>\n",
                       mWidth, height, kStyle) +
               mText + "</svg>\n";
    }

  private:
    template <typename... T>
    void add(fmt::format_string<T...> format, T&&... values) {
        mText += fmt::format(format, std::forward<T>(values)...);
    }
    void text(double x, double y, const char* style, const std::string& text) {
        add("<text x=\"{:.0f}\" y=\"{:.0f}\"{}>{}</text>\n", x, y, style, escape(text));
    }

    void placeNames() {
        double lanes = 0, rows = 0;
        for (const Timeline::Lane& lane : mTimeline.lanes) {
            lanes = std::max({lanes, 1.2 * widthOf(lane.name), widthOf(lane.what)});
            for (const auto& row : lane.rows) rows = std::max(rows, widthOf(row.name));
        }
        mGutter = kMargin + std::max(lanes + rows + 20, widthOf(axis()) + 4);
        if (mShowsClock) mGutter = std::max(mGutter, kMargin + widthOf(kClock) + 14);
    }

    // Each as wide as what stands in it, and further from the one before the more time passes.
    void placeColumns() {
        const auto& columns = mTimeline.columns;
        std::vector<double> widths(columns.size(), kNarrowest);
        const auto widen = [&widths](size_t column, double width) {
            widths[column] = std::max(widths[column], width);
        };
        for (size_t i = 0; mShowsClock && i < columns.size(); ++i) {
            if (clockMoves(i)) widen(i, widthOf(clockAt(i)) + 6);
        }
        for (const Timeline::Lane& lane : mTimeline.lanes) {
            for (const Timeline::Row& row : lane.rows) {
                for (const auto& bar : row.bars) widen(bar.from, widthOf(bar.label) + 6);
                for (const auto& mark : row.marks) widen(mark.column, widthOf(mark.label) + 20);
            }
        }
        double x = mGutter;
        mRight = x;
        for (size_t i = 0; i < columns.size(); ++i) {
            const double gap =
                    i == 0 || mTimeline.even ? 0 : (columns[i] - columns[i - 1]) * kSecond;
            mCut.push_back(gap > kLongestGap);
            if (i != 0) x += std::max(widths[i - 1], std::min(gap, kLongestGap));
            mX.push_back(x);
        }
        mRight = x + (widths.empty() ? 0 : widths.back());
        // What is written beside a mark of the end goes on to the right.
        mWidth = std::max(mRight + kMargin, kNarrowestPicture);
        for (const Timeline::Lane& lane : mTimeline.lanes) {
            if (!lane.ended) continue;
            mWidth = std::max(mWidth, mX[*lane.ended] + 12 + widthOf(endOf(lane)) + kMargin);
        }
    }

    void placeRows() {
        double height = kMargin + mAxis;
        for (const Timeline::Lane& lane : mTimeline.lanes) {
            mTop.push_back(height);
            double y = height + 2;
            std::vector<double> bases;
            for (const Timeline::Row& row : lane.rows) {
                std::map<size_t, int> lines;
                int most = 1;
                for (const auto& mark : row.marks) most = std::max(most, ++lines[mark.column]);
                y += most * kLine + (row.name.empty() ? 2 : kBar + 4);
                bases.push_back(y);
            }
            mBases.push_back(bases);
            height = std::max(y, height + 2 * kLine + 4) + 6;
        }
        mBottom = height;
    }

    const char* axis() const {
        return mTimeline.even ? "moments, one after the other" : "seconds since the start";
    }

    std::string timeOf(size_t column) const {
        return mTimeline.even ? fmt::format("{}", column + 1)
                              : fmt::format("{:.3f}", mTimeline.columns[column]);
    }

    std::string endOf(const Timeline::Lane& lane) const {
        if (!lane.died) return lane.end;
        if (mShowsClock) {
            return fmt::format("{} at {} s, moment {}", lane.end, clockAt(*lane.ended),
                               timeOf(*lane.ended));
        }
        return fmt::format(mTimeline.even ? "{}, moment {}" : "{} at {} s", lane.end,
                           timeOf(*lane.ended));
    }

    std::string clockAt(size_t column) const {
        return fmt::format("{:.6g}", mTimeline.clock[column]);
    }

    bool clockMoves(size_t column) const {
        return column == 0 || mTimeline.clock[column] != mTimeline.clock[column - 1];
    }

    void drawAxis() {
        const double y = kMargin + mAxis - 8;
        text(kMargin, y, " class=\"quiet\"", axis());
        if (mShowsClock) text(kMargin, y - 9 - kLine, " class=\"quiet\"", kClock);
        for (size_t i = 0; i < mX.size(); ++i) {
            add("<path class=\"grid\" d=\"M{0:.0f} {1:.0f}V{2:.0f}\"/>\n", mX[i], y, mBottom);
            add("<path class=\"axis\" d=\"M{0:.0f} {1:.0f}v5\"/>\n", mX[i], y - 5);
            if (mTimeline.even) {
                text(mX[i], y - 9, " text-anchor=\"middle\" class=\"quiet\"", timeOf(i));
                if (mShowsClock && clockMoves(i)) {
                    text(mX[i], y - 9 - kLine, " text-anchor=\"middle\"", clockAt(i));
                }
            } else {
                text(mX[i] + 3, y - 8,
                     fmt::format(" transform=\"rotate(-55 {:.0f} {:.0f})\"", mX[i] + 3, y - 8)
                             .c_str(),
                     timeOf(i));
            }
            if (i == 0) continue;
            if (!mCut[i]) {
                add("<path class=\"axis\" d=\"M{:.0f} {:.0f}H{:.0f}\"/>\n", mX[i - 1], y, mX[i]);
                continue;
            }
            const double middle = (mX[i - 1] + mX[i]) / 2;
            add("<path class=\"axis\" d=\"M{0:.0f} {1:.0f}H{2:.0f}m-2 5l6 -10m4 0l-6 10m2 -5H{3:.0f}\">"
                "<title>{4}</title></path>\n",
                mX[i - 1], y, middle - 4, mX[i],
                escape(fmt::format("{:.1f} s, drawn shorter",
                                   mTimeline.columns[i] - mTimeline.columns[i - 1])));
        }
    }

    void drawLane(size_t i) {
        const Timeline::Lane& lane = mTimeline.lanes[i];
        const double end = i + 1 < mTop.size() ? mTop[i + 1] : mBottom;
        if (i % 2 == 0) {
            add("<rect class=\"lane\" y=\"{:.0f}\" width=\"{:.0f}\" height=\"{:.0f}\" "
                "fill-opacity=\".6\"/>\n",
                mTop[i], mWidth, end - mTop[i]);
        }
        text(kMargin, mTop[i] + 16, " class=\"name\"", lane.name);
        text(kMargin, mTop[i] + 16 + kLine, " class=\"quiet\"", lane.what);
        if (lane.entered && !lane.module) {
            add("<path class=\"life\" d=\"M{:.0f} {:.0f}v8m0 -4H{:.0f}\"/>\n", mX[*lane.entered],
                end - 8, lane.ended ? mX[*lane.ended] : mRight);
        }
        for (size_t r = 0; r < lane.rows.size(); ++r) {
            const double base = mBases[i][r];
            if (lane.rows[r].name.empty()) continue;
            text(mGutter - 8, base, " text-anchor=\"end\"", lane.rows[r].name);
            for (const Timeline::Bar& bar : lane.rows[r].bars) {
                drawBar(lane, lane.rows[r].name, bar, base);
            }
        }
    }

    // Whether a client asks for the pair from this column on.
    bool isAskedFor(const std::string& pair, size_t column) const {
        for (const Timeline::Lane& lane : mTimeline.lanes) {
            if (lane.module) continue;
            for (const Timeline::Row& row : lane.rows) {
                if (row.name != pair) continue;
                for (const Timeline::Bar& bar : row.bars) {
                    if (bar.from <= column && column < bar.to.value_or(mX.size())) return true;
                }
            }
        }
        return false;
    }

    void drawBar(const Timeline::Lane& lane, const std::string& pair, const Timeline::Bar& bar,
                 double base) {
        const size_t end = bar.to.value_or(mX.size());
        const double height = lane.module ? kBar : kThinBar;
        text(mX[bar.from] + 1, base - kBar - 3, "", bar.label);
        // In pieces, where it changes whether anybody asks for what the module has enabled.
        for (size_t from = bar.from, to = from; from < end; from = to) {
            const bool asked = !lane.module || isAskedFor(pair, from);
            while (to < end && (!lane.module || isAskedFor(pair, to) == asked)) ++to;
            const double right = to < mX.size() ? mX[to] : mRight;
            add("<rect class=\"{}\" x=\"{:.0f}\" y=\"{:.0f}\" width=\"{:.0f}\" height=\"{}\">"
                "<title>{}</title></rect>\n",
                !lane.module ? "request"
                : asked      ? "enabled"
                             : "orphan",
                mX[from], base - height - (kBar - height) / 2, std::max(right - mX[from] - 2, 1.0),
                height,
                escape(fmt::format("{} {}, {}", pair, bar.label,
                                   !lane.module ? "asked for"
                                   : asked      ? "enabled"
                                                : "enabled, and nobody asks for it")));
        }
    }

    double heightOf(const Timeline::Row& row, double base, int line) const {
        return base - (row.name.empty() ? 0 : kBar + 3) - line * kLine;
    }

    // From a batch in the module's lane down to the last lane that got something of it.
    void drawFlows() {
        std::map<size_t, std::pair<double, double>> reach;
        for (size_t i = 0; i < mTimeline.lanes.size(); ++i) {
            for (size_t r = 0; r < mTimeline.lanes[i].rows.size(); ++r) {
                for (const Timeline::Mark& mark : mTimeline.lanes[i].rows[r].marks) {
                    const double y = heightOf(mTimeline.lanes[i].rows[r], mBases[i][r], 0) - 4;
                    auto& [top, bottom] = reach.try_emplace(mark.column, y, y).first->second;
                    top = std::min(top, y);
                    bottom = std::max(bottom, y);
                }
            }
        }
        for (const auto& [column, ends] : reach) {
            add("<path class=\"flow\" d=\"M{:.0f} {:.0f}V{:.0f}\"/>\n", mX[column], ends.first,
                ends.second);
        }
    }

    void drawMarks(size_t i) {
        const Timeline::Lane& lane = mTimeline.lanes[i];
        for (size_t r = 0; r < lane.rows.size(); ++r) {
            std::map<size_t, int> below;  // marks of a column that are still to come
            for (const Timeline::Mark& mark : lane.rows[r].marks) ++below[mark.column];
            for (const Timeline::Mark& mark : lane.rows[r].marks) {
                const double x = mX[mark.column];
                const double y = heightOf(lane.rows[r], mBases[i][r], --below[mark.column]);
                if (lane.module) {
                    add("<rect class=\"batch\" x=\"{:.0f}\" y=\"{:.0f}\" width=\"7\" height=\"7\"/>",
                        x - 3.5, y - 8);
                } else {
                    add("<circle class=\"delivery\" cx=\"{:.0f}\" cy=\"{:.0f}\" r=\"4\"/>", x,
                        y - 4);
                }
                add("<text x=\"{:.0f}\" y=\"{:.0f}\">{}<title>{}</title></text>\n", x + 6, y,
                    escape(mark.label), escape(mark.details));
            }
        }
        if (!lane.ended) return;
        const double x = mX[*lane.ended];
        const double y = (i + 1 < mTop.size() ? mTop[i + 1] : mBottom) - 5;
        drawEnd(x, y, lane.died);
        text(x + 9, y + 1, "", endOf(lane));
    }

    void drawEnd(double x, double y, bool died) {
        if (died) {
            add("<path class=\"death\" d=\"M{:.0f} {:.0f}l10 10m0 -10l-10 10\"/>\n", x - 5, y - 8);
        } else {
            add("<circle class=\"left\" cx=\"{:.0f}\" cy=\"{:.0f}\" r=\"3.5\"/>\n", x, y - 3);
        }
    }

    // Where it ends.
    double drawLegend(double y) {
        double x = kMargin;
        const auto next = [&](double shape, const char* what) {
            if (x + shape + widthOf(what) > mWidth) {
                x = kMargin;
                y += kLine + 3;
            }
            text(x + shape, y, "", what);
            const double at = x;
            x += shape + widthOf(what) + 20;
            return at;
        };
        const auto bar = [&](const char* style, double height, const char* what) {
            const double at = next(28, what);
            add("<rect class=\"{}\" x=\"{:.0f}\" y=\"{:.0f}\" width=\"22\" height=\"{}\"/>\n",
                style, at, y - height - (kBar - height) / 2, height);
        };
        bar("enabled", kBar, "enabled in the module, with the merged latency");
        bar("orphan", kBar, "enabled, and nobody asks for it");
        bar("request", kThinBar, "asked for, with its own latency");
        double at = next(12, "a record of a batch");
        add("<rect class=\"batch\" x=\"{:.0f}\" y=\"{:.0f}\" width=\"7\" height=\"7\"/>\n", at,
            y - 8);
        at = next(12, "who got it");
        add("<circle class=\"delivery\" cx=\"{:.0f}\" cy=\"{:.0f}\" r=\"4\"/>\n", at + 4, y - 4);
        at = next(16, "death");
        drawEnd(at + 5, y - 1, true);
        if (std::count(mCut.begin(), mCut.end(), true) != 0) {
            at = next(16, "a wait, drawn shorter");
            add("<path class=\"axis\" d=\"M{:.0f} {:.0f}l6 -10m4 0l-6 10\"/>\n", at, y);
        }
        return y;
    }

    const Timeline& mTimeline;
    const bool mShowsClock;
    const double mAxis;  // its height
    double mGutter = 0;  // where columns begin, right of the names
    std::string mText;
    std::vector<double> mX;                   // of columns
    std::vector<bool> mCut;                   // the way to a column is shorter than its time
    std::vector<double> mTop;                 // of lanes
    std::vector<std::vector<double>> mBases;  // of their rows
    double mRight = 0, mBottom = 0, mWidth = 0;
};

}  // namespace

std::string drawTimeline(const Timeline& timeline) {
    return Picture(timeline).draw();
}

}  // namespace activityctl
