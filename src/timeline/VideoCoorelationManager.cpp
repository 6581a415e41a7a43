#include "timeline/VideoCoorelationManager.h"

namespace videoplayer {

namespace {

QString pathOf(const std::shared_ptr<Video> &video)
{
    return video ? QString::fromStdString(video->filepath) : QString();
}

} // namespace

VideoCoorelationManager::VideoCoorelationManager(QObject *parent)
    : QObject(parent)
{
    log.prefix = QStringLiteral("VideoCoorelationManager ~~~===---");
    log.log(QStringLiteral("Started the VideoCoorelationManager"));
}

Timeline &VideoCoorelationManager::emptyTimeline()
{
    static Timeline empty;
    return empty;
}

void VideoCoorelationManager::addInput(std::shared_ptr<Video> video)
{
    if (!video) {
        log.log(QStringLiteral("addInput: refused an empty input"), ConsoleLogger::Critical);
        return;
    }
    const auto known = inputs.find(video->uid);
    if (known != inputs.end()) {
        log.log(QStringLiteral("You tried to add the same input twice LOL! Why would you do this?!?!"),
                ConsoleLogger::Warn);
        currentInput = known->second;
        return;
    }
    log.log(QStringLiteral("Added new input! Groovy!"));
    inputs.emplace(video->uid, video);
    previewSets[video->uid].clear();
    currentInput = std::move(video);
}

void VideoCoorelationManager::addPreview(PreviewSetUID psUID, UID inputUID, std::shared_ptr<Video> video)
{
    log.log(QStringLiteral("Adding preview to VideoCoorelationManager"));
    const auto input = inputs.find(inputUID);
    if (input == inputs.end()) {
        log.log([&] { return QStringLiteral("Could not add preview to ") + QString::number(inputUID); }, ConsoleLogger::Critical);
        log.log([&] { return QStringLiteral("addPreview: Couldn't find inputUID = ") + QString::number(inputUID); },
                ConsoleLogger::Critical);
        return;
    }
    if (!video) {
        log.log(QStringLiteral("addPreview: refused an empty preview"), ConsoleLogger::Critical);
        return;
    }
    if (previews.count(video->uid) != 0) {
        log.log(QStringLiteral("addPreview: Attempted to add same preview twice. Aborting."), ConsoleLogger::Warn);
        return;
    }
    log.log([&] { return QStringLiteral("...Adding preview to preview set ") + QString::number(psUID); });
    auto &setsOfInput = timelines[inputUID];
    auto timeline = setsOfInput.find(psUID);
    if (timeline == setsOfInput.end()) {
        log.log([&] { return QStringLiteral("...Setting input to ") + pathOf(input->second); });
        timeline = setsOfInput.emplace(psUID, Timeline()).first;
        timeline->second.setInput(input->second);
    }
    previewSets[inputUID][psUID].push_back(video);
    timeline->second.addVideo(video);
    previews.emplace(video->uid, std::move(video));
}

void VideoCoorelationManager::addPreview(PreviewSetUID psUID, std::shared_ptr<Video> video)
{
    if (!currentInput) {
        log.log(QStringLiteral("Could not add preview to currentInput. It does not exist."), ConsoleLogger::Critical);
        return;
    }
    addPreview(psUID, currentInput->uid, std::move(video));
}

void VideoCoorelationManager::deleteInput(UID inputUID)
{
    const auto input = inputs.find(inputUID);
    if (input == inputs.end()) {
        log.log([&] { return QStringLiteral("deleteInput: Couldn't find inputUID = ") + QString::number(inputUID); },
                ConsoleLogger::Critical);
        return;
    }
    if (currentInput == input->second)
        currentInput.reset();
    inputs.erase(input);
    if (timelines.erase(inputUID) == 0)
        log.log([&] { return QStringLiteral("deleteInput: couldn't find timeline for inputUID = ") + QString::number(inputUID); },
                ConsoleLogger::Critical);
    // Its previews stay registered.
    log.log([&] { return QStringLiteral("Deleted inputUID: ") + QString::number(inputUID); });
}

void VideoCoorelationManager::deletePreview(UID uid)
{
    if (previews.count(uid) == 0) {
        log.log([&] { return QStringLiteral("deletePreview: Could not find preview ") + QString::number(uid); });
        return;
    }
    for (auto &[inputUID, sets] : timelines) {
        for (auto &[psUID, timeline] : sets) {
            const auto &videos = timeline.rData.videos;
            const bool shown = std::any_of(videos.begin(), videos.end(),
                                           [uid](const std::shared_ptr<Video> &v) { return v && v->uid == uid; });
            if (!shown)
                continue;
            previews.erase(uid);
            timeline.deletePreview(uid);
            log.log([&] { return QStringLiteral("Removed preview ") + QString::number(uid); });
        }
    }
}

void VideoCoorelationManager::deletePreview(UID inputUID, UID previewUID, PreviewSetUID psUID)
{
    if (previews.count(previewUID) == 0) {
        log.log([&] { return QStringLiteral("deletePreview: Could not find preview ") + QString::number(previewUID); },
                ConsoleLogger::Warn);
        return;
    }
    const auto sets = timelines.find(inputUID);
    if (sets == timelines.end()) {
        log.log([&] { return QStringLiteral("deletePreview: Could not find Timeline data for InputUID ") + QString::number(inputUID); },
                ConsoleLogger::Warn);
        return;
    }
    const auto timeline = sets->second.find(psUID);
    if (timeline == sets->second.end()) {
        log.log([&] { return QStringLiteral("deletePreview: Could not find Timeline for PreviewSet ") + QString::number(psUID); },
                ConsoleLogger::Warn);
        return;
    }
    previews.erase(previewUID);
    timeline->second.deletePreview(previewUID);
}

Timeline &VideoCoorelationManager::getTimeline(UID inputUID, PreviewSetUID psUID)
{
    log.log([&] { return QStringLiteral("Getting timeline for psUID ") + QString::number(psUID); });
    const auto sets = timelines.find(inputUID);
    if (sets == timelines.end()) {
        log.log([&] { return QStringLiteral("getTimeline: Couldn't find inputUID = ") + QString::number(inputUID); },
                ConsoleLogger::Critical);
        return emptyTimeline();
    }
    const auto timeline = sets->second.find(psUID);
    if (timeline == sets->second.end()) {
        log.log([&] { return QStringLiteral("getTimeline: Couldn't find psUID = ") + QString::number(psUID); },
                ConsoleLogger::Critical);
        return emptyTimeline();
    }
    log.log(QStringLiteral("Returning valid timeline"));
    return timeline->second;
}

Timeline &VideoCoorelationManager::getTimeline(PreviewSetUID psUID)
{
    if (!currentInput)
        return emptyTimeline();
    return getTimeline(currentInput->uid, psUID);
}

void VideoCoorelationManager::switchInput(UID uid)
{
    const auto input = inputs.find(uid);
    if (input == inputs.end()) {
        log.log([&] { return QStringLiteral("switchInput: Couldn't switch to inputUID = ") + QString::number(uid)
                    + QStringLiteral(", it doesn't exist!"); },
                ConsoleLogger::Critical);
        return;
    }
    currentInput = input->second;
}

} // namespace videoplayer
