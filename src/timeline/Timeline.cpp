#include "timeline/Timeline.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

namespace videoplayer {

namespace {

const QString kAppendTag = QStringLiteral("[timelines]<TL::A>");
const QString kRemoveTag = QStringLiteral("[timelines]<TL::R>");

// The end of a video on the input's axis; saturates instead of wrapping on absurd lengths.
TSType endOf(const Video &video)
{
    TSType end = 0;
    if (__builtin_add_overflow(video.startOffset, video.duration, &end))
        return video.duration > 0 ? std::numeric_limits<TSType>::max() : std::numeric_limits<TSType>::min();
    return end;
}

// Plain concatenation: these run for every stretch of every listing, where arg() parsing shows.
QString rangeText(TSType x, TSType y)
{
    return QLatin1Char('(') + QString::number(x) + QStringLiteral(", ") + QString::number(y) + QLatin1Char(')');
}

QString rangeText(const TimeRange &range)
{
    return rangeText(range.first, range.second);
}

QString pathOf(const std::shared_ptr<Video> &video)
{
    return video ? QString::fromStdString(video->filepath) : QString();
}

// The frame an end of a stretch falls on, for the listings.
qint64 frameAt(TSType ts, double framerate)
{
    const double frame = std::round(double(ts) / (1000.0 / framerate));
    return std::isfinite(frame) ? qint64(frame) : 0;
}

} // namespace

Timeline::Timeline()
{
    log.prefix = QStringLiteral("Timeline ...===---");
}

bool Timeline::isInput(const std::shared_ptr<Video> &video) const
{
    return video && video == input;
}

bool Timeline::showsPreview(const Video &video) const
{
    // Lookups go by file, not by record: a preview of the input's own file counts as the input.
    return video.filepath != (input ? input->filepath : std::string());
}

void Timeline::setInput(std::shared_ptr<Video> video)
{
    if (!video || video == input)
        return;
    log.log([&] { return QStringLiteral("Set the input to ") + pathOf(video); });
    input = std::move(video);
    clear();
    log.log([&] { return QStringLiteral("Set the input range to ") + rangeText(rData.ranges.front()); });
    log.log([&] { return QStringLiteral("All my sizes on init: ") + QString::number(rData.ranges.size()) + QLatin1Char(' ')
            + QString::number(rData.videos.size()); });
}

void Timeline::addVideo(std::shared_ptr<Video> video)
{
    if (!video) {
        log.log(QStringLiteral("Refused to add an empty video to the timeline"), ConsoleLogger::Warn);
        return;
    }
    const TSType start = video->startOffset;
    const TSType end = endOf(*video);
    log.log([&] { return QStringLiteral("There are ") + QString::number(videosByStart.size()) + QStringLiteral(" existing videos."); });

    startTimes.insert(start);
    // The first preview at a start keeps the place.
    videosByStart.try_emplace(start, video);
    rangeByVideo[video] = {start, end};
    videosByUID[video->uid] = video;

    log.log([&] { return QStringLiteral("Added new video ==") + pathOf(video) + QStringLiteral("== to timeline with adjusted range ")
            + rangeText(start, end) + QStringLiteral(", there are now ") + QString::number(videosByUID.size())
            + QStringLiteral(" videos in this timeline."); });
    _appendToRData(std::move(video));
}

void Timeline::_appendToRData(std::shared_ptr<Video> video)
{
    // Two previews can displace each other for ever (the later starter sits
    // less than a frame into its stretch, so the input piece in front of it is
    // dropped and the earlier one meets it again). One placement may therefore
    // displace at most as many previews as the timeline holds.
    int displacementsLeft = std::max<int>(1, int(videosByUID.size()));
    _appendToRData(video, displacementsLeft);
}

void Timeline::_appendToRData(const std::shared_ptr<Video> &video, int &displacementsLeft)
{
    if (!video || isInput(video))
        return;
    log.toggleTag(kAppendTag);

    const TimeRange preview{video->startOffset, endOf(*video)};

    // The first stretch that touches the preview, ends included.
    std::size_t i = 0;
    while (i < rData.ranges.size()
           && !(rData.ranges[i].first <= preview.second && preview.first <= rData.ranges[i].second))
        ++i;
    if (i == rData.ranges.size()) {
        log.log([&] { return QStringLiteral("notinjecting last preview why ") + QString::number(preview.first) + QStringLiteral(" <> ")
                    + QString::number(preview.second); },
                ConsoleLogger::Warn);
        if (!rData.ranges.empty())
            log.log([&] { return QStringLiteral("notinjecting last preview why ") + QString::number(rData.ranges.back().first)
                        + QStringLiteral(" <> ") + QString::number(rData.ranges.back().second); },
                    ConsoleLogger::Warn);
        log.toggleTag(kAppendTag);
        return;
    }

    const std::shared_ptr<Video> conflict = rData.videos[i];
    const TimeRange conflictRange = rData.videos.size() < 2 && input
                                        ? TimeRange{input->startOffset, endOf(*input)}
                                        : rData.ranges[i];

    logStretches(QStringLiteral("All my pre ranges"), QStringLiteral("All my pre videos"), false);
    log.log(QStringLiteral("All my pre insert finished"));
    log.log([&] { return QStringLiteral("$$_$$ All my conflictRange: ") + rangeText(conflictRange); });
    log.log([&] { return QStringLiteral("$$_$$ All my previewRange: ") + rangeText(preview); });

    if (!isInput(conflict)) {
        log.log([&] { return QStringLiteral("Injecting skipped on range ") + rangeText(preview) + QStringLiteral(" that conflicts w/ ")
                + rangeText(conflict->startOffset, endOf(*conflict)); });
        // The tag marks one call; the calls below set their own.
        log.toggleTag(kAppendTag);
        if (video->startOffset == conflict->startOffset)
            return;
        if (displacementsLeft <= 0) {
            log.log([&] { return QStringLiteral("Injecting skipped for good on range ") + rangeText(preview)
                        + QStringLiteral(": it keeps displacing ") + pathOf(conflict) + QStringLiteral(", leaving ")
                        + pathOf(video) + QStringLiteral(" out of the timeline"); },
                    ConsoleLogger::Warn);
            return;
        }
        --displacementsLeft;
        // The later starter keeps its whole range: take the earlier one off,
        // lay the new one on the input, then lay the earlier one back in front of it.
        _removeFromRData(conflict);
        _appendToRData(video, displacementsLeft);
        _appendToRData(conflict, displacementsLeft);
        return;
    }

    log.log(QStringLiteral("$$_$$ Hit on input"));
    log.log([&] { return QStringLiteral("All my Injecting: Erasing video: ") + pathOf(conflict) + QLatin1Char(' ')
            + rangeText(rData.ranges[i]); });
    rData.videos.erase(rData.videos.begin() + std::ptrdiff_t(i));
    rData.ranges.erase(rData.ranges.begin() + std::ptrdiff_t(i));

    // Every piece goes in at i, so they stand in reverse order until the sort.
    //   case 3:  R  |-------|         case 2:  R |--------|     case 1:  R |----------|
    //            P      |------|               P |---|                   P    |---|
    //            ->  I  P   (rest lost)        ->  P   I                 ->  I  P  I
    if (preview.first < conflictRange.first || conflictRange.second <= preview.second) {
        log.log(QStringLiteral("$$_$$ Hit case 3 left side inject"));
        if (preview.first != conflictRange.first)
            insertPiece({conflictRange.first, preview.first}, input, i);
        insertPiece({preview.first, std::min(preview.second, conflictRange.second)}, video, i);
        log.log(QStringLiteral("$$_$$ all my 2 injects left: I P "));
    } else if (conflictRange.first == preview.first) {
        log.log(QStringLiteral("$$_$$ Hit case 2"));
        insertPiece(preview, video, i);
        insertPiece({preview.second + 1, conflictRange.second}, input, i);
        log.log(QStringLiteral("$$_$$ all my 2 injects: P I "));
    } else {
        log.log(QStringLiteral("$$_$$ Hit case 1"));
        insertPiece({conflictRange.first, preview.first}, input, i);
        insertPiece(preview, video, i);
        insertPiece({preview.second + 1, conflictRange.second}, input, i);
        log.log(QStringLiteral("$$_$$ all my 3 injects: I P I "));
    }

    _sortRData();
    forceLastStretchToInputEnd();

    logStretches(QStringLiteral("All my post ranges"), QStringLiteral("All my post videos"), true);
    log.log(QStringLiteral("all my end"));
    log.toggleTag(kAppendTag);
}

void Timeline::insertPiece(TimeRange range, const std::shared_ptr<Video> &owner, std::size_t at)
{
    // A piece that cannot hold one frame is dropped; each owner is measured by
    // its own rate, and a rate of 0 makes a frame infinitely long.
    const double frameLength = 1000.0 / owner->framerate;
    if (frameLength > double(range.second) - double(range.first) - 1.0)
        return;
    // An input piece ends one millisecond before whatever follows it.
    if (isInput(owner))
        range.second -= 1;
    if (rData.videos.empty()) {
        rData.videos.push_back(owner);
        rData.ranges.push_back(range);
        return;
    }
    at = std::min(at, rData.videos.size());
    rData.videos.insert(rData.videos.begin() + std::ptrdiff_t(at), owner);
    rData.ranges.insert(rData.ranges.begin() + std::ptrdiff_t(at), range);
}

void Timeline::forceLastStretchToInputEnd()
{
    // Dropped pieces may leave nothing at all; then there is no end to force.
    if (!rData.ranges.empty() && input)
        rData.ranges.back().second = input->duration;
}

void Timeline::_sortRData()
{
    const std::size_t count = rData.ranges.size();
    std::vector<std::size_t> order(count);
    std::iota(order.begin(), order.end(), std::size_t(0));
    std::sort(order.begin(), order.end(),
              [this](std::size_t a, std::size_t b) { return rData.ranges[a].second < rData.ranges[b].second; });

    // Apply the permutation in place, cycle by cycle, moving each range and
    // its owner together: afterwards position k holds what stood at order[k].
    for (std::size_t start = 0; start < count; ++start) {
        std::size_t at = start;
        while (order[at] != start) {
            const std::size_t from = order[at];
            std::swap(rData.ranges[at], rData.ranges[from]);
            std::swap(rData.videos[at], rData.videos[from]);
            order[at] = at;
            at = from;
        }
        order[at] = at;
    }
}

void Timeline::_removeFromRData(std::shared_ptr<Video> video)
{
    if (!video || isInput(video))
        return;
    log.toggleTag(kRemoveTag);
    log.log([&] { return QStringLiteral("Timeline::_removeFromRData: ") + rangeText(video->startOffset, endOf(*video)); });
    log.log(QStringLiteral("====================== Begin _removeFromRData ======================"));

    const auto found = std::find(rData.videos.begin(), rData.videos.end(), video);
    if (found == rData.videos.end()) {
        log.log(QStringLiteral("Could not find matching previewVideo to remove from rData"), ConsoleLogger::Warn);
        log.toggleTag(kRemoveTag);
        return;
    }
    const std::size_t i = std::size_t(found - rData.videos.begin());
    auto &ranges = rData.ranges;
    auto &videos = rData.videos;
    const std::shared_ptr<Video> pre = i > 0 ? videos[i - 1] : nullptr;
    const std::shared_ptr<Video> post = i + 1 < videos.size() ? videos[i + 1] : nullptr;
    const auto eraseAt = [&](std::size_t at) {
        videos.erase(videos.begin() + std::ptrdiff_t(at));
        ranges.erase(ranges.begin() + std::ptrdiff_t(at));
    };

    // Only the direct neighbours are folded: input stretches that end up side
    // by side elsewhere stay apart.
    if (pre && post) {
        log.log(QStringLiteral("$$_$$ Hit case 1 with pre and post videos"));
        if (isInput(pre) && isInput(post)) {
            //  I P I  ->  I
            log.log(QStringLiteral("$$_$$ Hit case 1.1 I->P->I"));
            ranges[i - 1].second = ranges[i + 1].second;
            eraseAt(i + 1);
            eraseAt(i);
        } else if (isInput(pre)) {
            //  I P P  ->  I- P
            log.log(QStringLiteral("$$_$$ Hit case 1.2 I->P->P"));
            ranges[i - 1].second = ranges[i].second;
            eraseAt(i);
        } else if (isInput(post)) {
            //  P P I  ->  P -I
            log.log(QStringLiteral("$$_$$ Hit case 1.3 P->P->I"));
            ranges[i + 1].first = ranges[i].first;
            eraseAt(i);
        } else {
            //  P P P  ->  P I P
            log.log(QStringLiteral("$$_$$ Hit case 1.4 P->P->P"));
            videos[i] = input;
        }
    } else if (!pre) {
        log.log(QStringLiteral("$$_$$ Hit case 2 with only post videos"));
        if (post && isInput(post)) {
            log.log(QStringLiteral("$$_$$ Hit case 2.1 P->I"));
            ranges[i + 1].first = ranges[i].first;
            eraseAt(i);
        } else {
            log.log(QStringLiteral("$$_$$ Hit case 2.2 P->P"));
            videos[i] = input;
        }
    } else {
        log.log(QStringLiteral("$$_$$ Hit case 3 with only pre videos"));
        if (isInput(pre)) {
            log.log(QStringLiteral("$$_$$ Hit case 3.1 I->P"));
            ranges[i - 1].second = ranges[i].second;
            eraseAt(i);
        } else {
            log.log(QStringLiteral("$$_$$ Hit case 3.2 P->P"));
            videos[i] = input;
        }
    }

    _sortRData();
    forceLastStretchToInputEnd();
    logStretches(QStringLiteral("All my post ranges"), QStringLiteral("All my post videos"), true);
    log.log(QStringLiteral("all my end"));
    log.log(QStringLiteral("====================== End   _removeFromRData ======================"));
    log.toggleTag(kRemoveTag);
}

void Timeline::deletePreview(UID uid)
{
    const auto found = videosByUID.find(uid);
    if (found == videosByUID.end()) {
        log.log([&] { return QStringLiteral("Could not delete preview that does not exist: ") + QString::number(uid); },
                ConsoleLogger::Warn);
        return;
    }
    const std::shared_ptr<Video> video = found->second;
    _removeFromRData(video);
    // Keyed by start: a second preview at the same start loses its entry too.
    videosByStart.erase(video->startOffset);
    startTimes.erase(video->startOffset);
    rangeByVideo.erase(video);
    videosByUID.erase(uid);
    log.log([&] { return QStringLiteral("Deleted preview ") + QString::number(uid) + QStringLiteral(" from Timeline"); });
}

void Timeline::clear()
{
    rData = RData{};
    if (!input)
        return;
    rData.videos.push_back(input);
    rData.ranges.push_back({input->startOffset, endOf(*input)});
}

std::vector<std::shared_ptr<Video>> Timeline::getVideos() const
{
    return rData.videos;
}

std::shared_ptr<Video> Timeline::getPreviewAt(TSType ts) const
{
    log.log([&] { return QStringLiteral("Attempting to get preview at timestamp: ") + QString::number(ts); });
    for (std::size_t i = 0; i < rData.ranges.size(); ++i) {
        const TimeRange &range = rData.ranges[i];
        log.log([&] { return QStringLiteral("Testing video ") + rangeText(range) + QStringLiteral(" is interesected by ")
                + QString::number(ts); });
        if (range.first <= ts && ts <= range.second && showsPreview(*rData.videos[i])) {
            log.log([&] { return QStringLiteral("found ") + pathOf(rData.videos[i]); });
            return rData.videos[i];
        }
    }
    log.log([&] { return QStringLiteral("No matching preview! There are ") + QString::number(rData.ranges.size())
            + QStringLiteral(" videos!"); });
    return nullptr;
}

std::vector<QPoint> Timeline::getPreviewRanges() const
{
    std::vector<QPoint> result;
    for (std::size_t i = 0; i < rData.ranges.size(); ++i) {
        if (!showsPreview(*rData.videos[i]))
            continue;
        log.log([&] { return QStringLiteral("found preview ") + pathOf(rData.videos[i]) + QLatin1Char(' ')
                + rangeText(rData.ranges[i]); });
        // QML speaks in QPoint, so the ends are cut to 32 bits here.
        result.emplace_back(int(rData.ranges[i].first), int(rData.ranges[i].second));
    }
    log.log([&] { return QStringLiteral("Found ") + QString::number(result.size()) + QStringLiteral(" previews ranges!"); });
    return result;
}

RData &Timeline::getRData(TSType ts)
{
    _sortRData();
    for (std::size_t i = 0; i < rData.ranges.size(); ++i) {
        // One millisecond of slack below: the last millisecond of a gap
        // already belongs to the stretch behind it.
        if (ts <= rData.ranges[i].second && rData.ranges[i].first <= ts + 1) {
            rData.index = rData.videos.size() < 2 ? 0 : int(i);
            break;
        }
    }
    return rData;
}

void Timeline::logStretches(const QString &rangesLabel, const QString &videosLabel, bool withFrames) const
{
    // Two listings of every stretch per placement: the dearest logging there is.
    if (!log.isListening())
        return;
    QString ranges = rangesLabel;
    QString owners = videosLabel;
    for (std::size_t i = 0; i < rData.ranges.size(); ++i) {
        const TimeRange &range = rData.ranges[i];
        const std::shared_ptr<Video> &owner = rData.videos[i];
        ranges += QLatin1Char(' ') + rangeText(range);
        if (withFrames && owner)
            ranges += QLatin1Char('[') + QString::number(frameAt(range.first, owner->framerate))
                      + QStringLiteral(", ") + QString::number(frameAt(range.second, owner->framerate))
                      + QLatin1Char(']');
        owners += isInput(owner) ? QStringLiteral(" I") : QStringLiteral(" P");
    }
    log.log(ranges);
    log.log(owners);
}

} // namespace videoplayer
