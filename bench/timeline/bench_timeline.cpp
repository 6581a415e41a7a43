// Cost of the timeline's linear scans: lays 1,000 previews over one input,
// looks positions up, and removes them again, and prints the time per
// operation beside an ordered map (start -> end) doing the same work, which is
// what a logarithmic structure would cost.
//
// Run:  ninja -C build-x bench_timeline && build-x/bench/timeline/bench_timeline [previews]
// Build with -DCMAKE_BUILD_TYPE=Release for figures worth comparing.

#include "timeline/Timeline.h"

#include <QElapsedTimer>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <vector>

namespace {

struct Figure
{
    const char *what;
    double timelineMicros;
    double referenceMicros;
};

double microsPer(QElapsedTimer &timer, std::size_t operations)
{
    return double(timer.nsecsElapsed()) / 1000.0 / double(std::max<std::size_t>(1, operations));
}

} // namespace

int main(int argc, char **argv)
{
    const int count = argc > 1 ? std::max(1, std::atoi(argv[1])) : 1000;
    constexpr TSType kSlot = 1000;
    const TSType inputLength = kSlot * (count + 2);

    std::mt19937_64 random(7);
    std::vector<std::shared_ptr<Video>> previews;
    for (int i = 0; i < count; ++i) {
        auto preview = std::make_shared<Video>(100 + i, kSlot / 2, kSlot * (i + 1), "preview-" + std::to_string(i),
                                               QVariantMap{});
        preview->framerate = 25.0;
        previews.push_back(preview);
    }
    std::shuffle(previews.begin(), previews.end(), random);
    std::vector<TSType> probes(static_cast<std::size_t>(count));
    for (TSType &probe : probes)
        probe = std::uniform_int_distribution<TSType>(0, inputLength)(random);

    auto input = std::make_shared<Video>(1, inputLength, 0, "input.mp4", QVariantMap{});
    input->framerate = 25.0;
    videoplayer::Timeline timeline;
    timeline.setInput(input);
    std::map<TSType, std::pair<TSType, std::shared_ptr<Video>>> reference;
    std::vector<Figure> figures;
    QElapsedTimer timer;

    timer.start();
    for (const auto &preview : previews)
        timeline.addVideo(preview);
    const double add = microsPer(timer, previews.size());
    timer.start();
    for (const auto &preview : previews)
        reference.emplace(preview->startOffset, std::make_pair(preview->startOffset + preview->duration, preview));
    figures.push_back({"addVideo (disjoint)", add, microsPer(timer, previews.size())});

    std::size_t hits = 0;
    timer.start();
    for (const TSType probe : probes)
        hits += timeline.getPreviewAt(probe) != nullptr;
    const double lookup = microsPer(timer, probes.size());
    std::size_t referenceHits = 0;
    timer.start();
    for (const TSType probe : probes) {
        auto found = reference.upper_bound(probe);
        if (found != reference.begin() && std::prev(found)->second.first >= probe)
            ++referenceHits;
    }
    figures.push_back({"getPreviewAt", lookup, microsPer(timer, probes.size())});

    timer.start();
    int indexSum = 0;
    for (const TSType probe : probes)
        indexSum += timeline.getRData(probe).index;
    const double rdata = microsPer(timer, probes.size());
    timer.start();
    for (const TSType probe : probes)
        indexSum += int(reference.lower_bound(probe) != reference.end());
    figures.push_back({"getRData", rdata, microsPer(timer, probes.size())});

    timer.start();
    const std::size_t ranges = timeline.getPreviewRanges().size();
    const double listing = microsPer(timer, 1);
    timer.start();
    std::vector<QPoint> referenceRanges;
    for (const auto &[start, entry] : reference)
        referenceRanges.emplace_back(int(start), int(entry.first));
    figures.push_back({"getPreviewRanges", listing, microsPer(timer, 1)});

    std::shuffle(previews.begin(), previews.end(), random);
    timer.start();
    for (const auto &preview : previews)
        timeline.deletePreview(preview->uid);
    const double remove = microsPer(timer, previews.size());
    timer.start();
    for (const auto &preview : previews)
        reference.erase(preview->startOffset);
    figures.push_back({"deletePreview", remove, microsPer(timer, previews.size())});

    // Each preview starts inside the one before it, so every add displaces
    // its neighbour once: the worst case that still settles.
    videoplayer::Timeline overlapping;
    overlapping.setInput(input);
    timer.start();
    for (int i = 0; i < count; ++i) {
        auto preview = std::make_shared<Video>(5000 + i, kSlot, kSlot * (i + 1) / 2 + 1, "overlap-" + std::to_string(i),
                                               QVariantMap{});
        preview->framerate = 25.0;
        overlapping.addVideo(preview);
    }
    figures.push_back({"addVideo (overlapping)", microsPer(timer, std::size_t(count)), 0.0});

    std::printf("%d previews over an input of %lld ms (%zu preview stretches, %zu lookups hit, reference %zu)\n",
                count, static_cast<long long>(inputLength), ranges, hits, referenceHits);
    std::printf("%-24s %16s %16s\n", "operation", "timeline us/op", "std::map us/op");
    for (const Figure &figure : figures)
        std::printf("%-24s %16.2f %16.3f\n", figure.what, figure.timelineMicros, figure.referenceMicros);
    std::printf("run after removal: %zu stretches; checksum %d\n", timeline.rData.ranges.size(), indexSum);
    return 0;
}
