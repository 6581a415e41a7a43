#include "playback/InstantReaderWatcher.h"

#include "files/TFileManager.h"
#include "videoio/DelayedDeleter.h"
#include "videoio/DiskCacheWriter.h"
#include "videoio/FilterGraphWorker.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>

extern "C" {
#include <libavutil/error.h>
}

Q_LOGGING_CATEGORY(lcWatcher, "kutils.playback")

namespace videoplayer {
namespace {

std::atomic<InstantReaderWatcher *> s_instance{nullptr};
std::atomic<int> s_folderCount{0};

// The loops below are slots by name, but only their own threads may run
// them: they return only when the watcher goes.
thread_local bool tl_ownLoop = false;

QString ptrText(const void *p)
{
    return QStringLiteral("0x%1").arg(quintptr(p), 0, 16);
}

// Wakes a loop that may be just about to wait: the flag it reads changed
// without its mutex, so take the mutex once before the notification.
void wake(std::mutex &mutex, std::condition_variable &cv)
{
    { const std::lock_guard lock(mutex); }
    cv.notify_all();
}

// The wait of every loop: false once the watcher goes, otherwise `take` has
// taken its item from `queue` under the queue's mutex.
template<typename Queue, typename Take>
bool takeNext(std::mutex &mutex, std::condition_variable &cv, Queue &queue, const std::atomic<bool> &running,
              Take take)
{
    std::unique_lock lock(mutex);
    cv.wait(lock, [&] { return !queue.empty() || !running; });
    if (!running)
        return false;
    take(queue);
    return true;
}

// The UI thread appends under the queue's lock and wakes the loop that takes.
template<typename Queue, typename Item>
void pushAndWake(std::mutex &mutex, std::condition_variable &cv, Queue &queue, Item &&item)
{
    {
        const std::lock_guard lock(mutex);
        queue.push_back(std::forward<Item>(item));
    }
    cv.notify_one();
}

} // namespace

InstantReaderWatcher::InstantReaderWatcher(QObject *parent)
    : QObject(parent)
    , m_files(std::make_unique<TFileManager>())
    , m_cacheFolder(QDir::temp().filePath(QStringLiteral("kutils-live-%1-%2")
                                              .arg(QCoreApplication::applicationPid())
                                              .arg(s_folderCount.fetch_add(1))))
{
    m_log.prefix = QStringLiteral("Instant Watcher ()()()");
    qRegisterMetaType<videoio::PreviewChunk>("videoio::PreviewChunk");
    s_instance = this;
    for (int id = 0; id < int(m_views.size()); ++id) {
        m_views[id] = std::make_unique<View>();
        m_views[id]->fileDurationThread = std::thread([this, id] {
            tl_ownLoop = true;
            handleFileDurationReqQueue(id);
        });
    }
}

InstantReaderWatcher::~InstantReaderWatcher()
{
    InstantReaderWatcher *self = this;
    s_instance.compare_exchange_strong(self, nullptr);
    m_running = false;
    for (const auto &v : m_views) {
        ++v->generation;
        wake(v->durationMutex, v->durationWake);
        wake(v->graphMutex, v->graphWake);
        wake(v->closeMutex, v->closeWake);
        wake(v->renderMutex, v->renderWake);
    }
    for (const auto &v : m_views) {
        for (std::thread *t : {&v->fileDurationThread, &v->graphLoop, &v->closeLoop, &v->renderThread}) {
            if (t->joinable())
                t->join();
        }
        if (!v->setUp)
            continue;
        v->filterGraphThread.quit();
        v->diskCacheThread.quit();
        v->filterGraphThread.wait();
        v->diskCacheThread.wait();
        v->filterGraphWorker.reset();
        for (FilterGraphReady &ready : v->filterGraphQueue)
            avfilter_graph_free(&ready.fg);
    }
    m_views = {};
    videoio::DelayedDeleter::DeleteLater(m_cacheFolder, 0);
}

InstantReaderWatcher *InstantReaderWatcher::instance()
{
    return s_instance.load();
}

void InstantReaderWatcher::log(const QString &message, int level) const
{
    m_log.log(QStringLiteral("[InstantReaderWatcher] ") + message, level);
}

InstantReaderWatcher::View *InstantReaderWatcher::view(int viewID, const char *caller)
{
    if (viewID == 0 || viewID == 1)
        return m_views[viewID].get();
    log(QStringLiteral("%1: there is no view %2").arg(QLatin1String(caller)).arg(viewID), ConsoleLogger::Warn);
    qCWarning(lcWatcher) << caller << ": there is no view" << viewID;
    return nullptr;
}

InstantReaderWatcher::View *InstantReaderWatcher::ownLoopView(int viewID, const char *loop)
{
    if (tl_ownLoop)
        return view(viewID, loop);
    qCWarning(lcWatcher) << loop << "runs only on its own thread";
    return nullptr;
}

InstantReaderWatcher::View &InstantReaderWatcher::setUpView(int viewID)
{
    View &v = *m_views[viewID];
    if (v.setUp)
        return v;
    v.setUp = true;

    auto *writer = new videoio::DiskCacheWriter(viewID, {}, m_cacheFolder, nullptr);
    v.diskCacheWriter = writer;
    writer->moveToThread(&v.diskCacheThread);
    connect(this, &InstantReaderWatcher::clearDiskCachedRangeRecord, writer,
            &videoio::DiskCacheWriter::onClearcachedRangeReqAndHistory);
    // Chunks are announced with what they carry, so a chunk of a stopped
    // render is recognised and dropped.
    connect(writer, &videoio::DiskCacheWriter::chunkCached, this, &InstantReaderWatcher::onChunkCached,
            Qt::QueuedConnection);
    connect(writer, &videoio::DiskCacheWriter::cacheError, this,
            [this, viewID](const QString &path, const QString &message, int ret) {
                cacheError(path, message, ret);
                // The player waits for the chunk without a timeout.
                fail(viewID, QStringLiteral("Cache error: %1").arg(message));
            },
            Qt::QueuedConnection);
    connect(&v.diskCacheThread, &QThread::finished, writer, &QObject::deleteLater);
    v.diskCacheThread.start();

    v.filterGraphWorker = std::make_unique<videoio::FilterGraphWorker>();
    // Straight from the builder's thread into the queue: the UI needn't run.
    connect(v.filterGraphWorker.get(), &videoio::FilterGraphWorker::filterGraphReady, this,
            &InstantReaderWatcher::onFilterGraphReady, Qt::DirectConnection);
    v.filterGraphWorker->moveToThread(&v.filterGraphThread);
    v.filterGraphThread.start();

    v.graphLoop = std::thread([this, viewID] {
        tl_ownLoop = true;
        processFilterGraphQueue(viewID);
    });
    v.closeLoop = std::thread([this, viewID] {
        tl_ownLoop = true;
        processCloseRequests(viewID);
    });
    v.renderThread = std::thread([this, viewID] { renderLoop(viewID); });
    return v;
}

std::vector<std::shared_ptr<videoio::InstantReader>> InstantReaderWatcher::watchListCopy(View &v)
{
    const std::lock_guard lock(v.listMutex);
    return v.watchList;
}

void InstantReaderWatcher::fail(int viewID, const QString &message)
{
    log(QStringLiteral("render of view %1 failed: %2").arg(viewID).arg(message), ConsoleLogger::Warn);
    qCWarning(lcWatcher).noquote() << "Live render of view" << viewID << "failed:" << message;
    emit renderFailed(viewID, message);
    emit updateFilterInitStatus(viewID, false, false);
}

// ---- Live render --------------------------------------------------------------------

bool InstantReaderWatcher::startRender(int viewID, QString path, qlonglong startTS, qlonglong endTS)
{
    if (!view(viewID, "startRender"))
        return false;
    View &v = setUpView(viewID);
    stopView(v);
    const auto refuse = [this, viewID](const QString &message) {
        fail(viewID, message);
        return false;
    };
    if (startTS < 0)
        return refuse(QStringLiteral("the render starts before the input: %1 ms").arg(startTS));
    if (endTS != -1 && endTS < startTS)
        return refuse(QStringLiteral("the render ends at %1 ms, before its start at %2 ms").arg(endTS).arg(startTS));

    // Opening the file and building its first graph take tens of ms at 1080p:
    // the view's render thread does that, and reports what it cannot render.
    log(QStringLiteral("render of view %1 from %2 to %3 ms of %4").arg(viewID).arg(startTS).arg(endTS).arg(path));
    {
        const std::lock_guard lock(v.renderMutex);
        v.renderRequest = RenderRequest{path,
                                        m_processInfo.value(viewID).value(QStringLiteral("filterComplex")).toString().toStdString(),
                                        startTS, endTS, v.generation.load()};
    }
    v.renderWake.notify_one();
    return true;
}

std::shared_ptr<videoio::InstantReader> InstantReaderWatcher::prepareReader(int viewID, const RenderRequest &request,
                                                                            QString *error)
{
    View &v = *m_views[viewID];
    if (!QFileInfo(request.path).isFile()) {
        *error = QStringLiteral("no such file: %1").arg(request.path);
        return {};
    }

    // The view's reader of this file goes on from where it stands, so a window
    // that follows the last one is decoded on without a seek.
    std::shared_ptr<videoio::InstantReader> reader;
    std::vector<std::shared_ptr<videoio::InstantReader>> others;
    {
        const std::lock_guard lock(v.listMutex);
        for (const auto &candidate : v.watchList) {
            if (candidate && candidate->getPath() == request.path && candidate->isOpen() && !reader)
                reader = candidate;
            else
                others.push_back(candidate);
        }
        if (reader)
            v.watchList = {reader};
    }
    if (!reader) {
        reader = std::make_shared<videoio::InstantReader>(request.path, viewID);
        // Its signals are received where the UI's readers live.
        reader->moveToThread(thread());
        if (!reader->isOpen()) {
            *error = QStringLiteral("cannot open %1").arg(request.path);
            return {};
        }
        addToWatchList(reader, viewID);
        const std::lock_guard lock(v.listMutex);
        std::erase_if(v.watchList, [&reader](const auto &r) { return r != reader; });
    }
    for (auto &other : others)
        enqueueCloseRequest(std::move(other), viewID);

    const qlonglong duration = reader->getInfo().value(QStringLiteral("duration")).toLongLong();
    if (request.start >= duration) {
        *error = QStringLiteral("the render starts at %1 ms, past the end at %2 ms").arg(request.start).arg(duration);
        return {};
    }
    if (!reader->hasFilterGraph() || reader->filterChain() != request.chain) {
        // Built here once, so that a chain that doesn't build is told to QML;
        // the reader builds its next graphs itself.
        std::string buildError;
        videoio::FilterGraphWorker::Graph graph =
            videoio::FilterGraphWorker::build(request.chain, reader->sourceArguments(), &buildError);
        if (!graph.graph) {
            *error = QStringLiteral("the filter chain does not build: %1").arg(QString::fromStdString(buildError));
            return {};
        }
        reader->adoptFilterGraph(std::move(graph), request.chain);
    }
    return reader;
}

void InstantReaderWatcher::stopRender(int viewID)
{
    if (View *v = view(viewID, "stopRender"))
        stopView(*v);
}

void InstantReaderWatcher::stopView(View &v)
{
    ++v.generation;
    const std::lock_guard lock(v.renderMutex);
    v.renderRequest.reset();
}

void InstantReaderWatcher::renderLoop(int viewID)
{
    View &v = *m_views[viewID];
    while (true) {
        RenderRequest request;
        {
            std::unique_lock lock(v.renderMutex);
            v.renderWake.wait(lock, [&] { return v.renderRequest || !m_running; });
            if (!m_running)
                return;
            request = std::move(*v.renderRequest);
            v.renderRequest.reset();
        }
        runRender(viewID, request);
    }
}

void InstantReaderWatcher::runRender(int viewID, const RenderRequest &request)
{
    View &v = *m_views[viewID];
    const auto stop = [this, &v, &request] { return !m_running || v.generation != request.generation; };
    QString error;
    const std::shared_ptr<videoio::InstantReader> reader = prepareReader(viewID, request, &error);
    if (reader && !stop()) {
        const videoio::InstantReader::RenderResult result =
            reader->render(request.start, request.end, request.generation, stop);
        if (result.stopped)
            return;
        error = result.error;
    }
    if (error.isEmpty())
        return;
    const int generation = request.generation;
    QMetaObject::invokeMethod(
        this,
        [this, viewID, generation, message = error] {
            if (m_views[viewID]->generation == generation)
                fail(viewID, message);
        },
        Qt::QueuedConnection);
}

void InstantReaderWatcher::onChunkCached(QString file, QPoint range, int viewID, videoio::PreviewChunk chunk)
{
    View *v = view(viewID, "onChunkCached");
    if (!v)
        return;
    if (chunk.tag != v->generation) {
        // Made by a render that was stopped: never announced, so nobody holds it.
        log(QStringLiteral("dropping %1 of a stopped render").arg(file));
        if (!m_announced.contains(file))
            videoio::DelayedDeleter::DeleteNow(file);
        return;
    }
    m_announced.insert(file);
    QVariantMap info = m_processInfo.value(viewID);
    info.insert(QStringLiteral("slowMoFactor"), chunk.slowMoFactor);
    emit previewReadyToInject(file, range, viewID, info);
}

// ---- The interface of the player and the UI ---------------------------------------

void InstantReaderWatcher::queueDurationCheck(int viewID, int uid, QString filePath, QVariantMap processInfo)
{
    View *v = view(viewID, "queueDurationCheck");
    if (!v)
        return;
    pushAndWake(v->durationMutex, v->durationWake, v->fileDurationRequests,
                DurationRequest{uid, filePath, processInfo});
}

void InstantReaderWatcher::handleFileDurationReqQueue(int viewID)
{
    View *const own = ownLoopView(viewID, "handleFileDurationReqQueue");
    if (!own)
        return;
    View &v = *own;
    while (m_running) {
        DurationRequest request;
        if (!takeNext(v.durationMutex, v.durationWake, v.fileDurationRequests, m_running, [&request](auto &queue) {
                request = std::move(queue.front());
                queue.pop_front();
            }))
            return;
        const qlonglong duration = m_files->getDuration(request.path);
        QMetaObject::invokeMethod(
            this,
            [this, request, duration] { emit fileDurationUpdate(request.uid, duration, request.processInfo); },
            Qt::QueuedConnection);
    }
}

QString InstantReaderWatcher::setProcessInfo(QVariantMap filterState, int viewID, bool onDisableIR)
{
    Q_UNUSED(onDisableIR)
    log(QStringLiteral("filter state of view %1: %2")
            .arg(viewID)
            .arg(QString::fromUtf8(QJsonDocument(QJsonObject::fromVariantMap(filterState)).toJson(QJsonDocument::Compact))));
    QVariantMap &info = m_processInfo[viewID];
    const QString before = info.value(QStringLiteral("filterComplex")).toString();
    const QVariantList commands =
        filterState.value(QStringLiteral("output")).toMap().value(QStringLiteral("commands")).toList();
    if (commands.isEmpty()) {
        log(QStringLiteral("command list from processInfo is empty for view %1").arg(viewID), ConsoleLogger::Warn);
        return before;
    }
    const QStringList args = commands.first().toMap().value(QStringLiteral("ffmpeg")).toStringList();
    const auto valueAfter = [&args](const QString &option) -> std::optional<QString> {
        const qsizetype at = args.indexOf(option);
        if (at < 0 || at + 1 >= args.size())
            return std::nullopt;
        return args.at(at + 1);
    };

    QString chain;
    if (const auto complex = valueAfter(QStringLiteral("-filter_complex"))) {
        chain = *complex;
        // Only the filters in front of the split that feeds the outputs, less
        // the one separator before it.
        const qsizetype split = chain.indexOf(QStringLiteral("split="));
        if (split == 0)
            chain.clear();
        else if (split > 0)
            chain = chain.left(split - 1);
    }
    info.insert(QStringLiteral("filterComplex"), chain);
    if (const auto encoder = valueAfter(QStringLiteral("-c:v")))
        info.insert(QStringLiteral("encoderId"), *encoder);
    // A new chain makes the running render's pictures wrong.
    if (chain != before && (viewID == 0 || viewID == 1))
        stopView(*m_views[viewID]);
    return chain;
}

QString InstantReaderWatcher::setProcessInfo(QVariantMap filterState, int viewID)
{
    return setProcessInfo(filterState, viewID, false);
}

void InstantReaderWatcher::clearDiskCachedRecord(int viewID)
{
    emit clearDiskCachedRangeRecord(viewID);
}

void InstantReaderWatcher::addToWatchList(std::shared_ptr<videoio::Reader> reader, int viewID)
{
    if (!view(viewID, "addToWatchList"))
        return;
    const auto instant = std::dynamic_pointer_cast<videoio::InstantReader>(reader);
    if (!instant) {
        fail(viewID, QStringLiteral("only an instant reader renders live, not %1")
                         .arg(reader ? reader->getFile() : QStringLiteral("an empty reader")));
        return;
    }
    View &v = setUpView(viewID);
    videoio::InstantReader *r = instant.get();
    connect(r, &videoio::InstantReader::previewBufferReady, v.diskCacheWriter,
            &videoio::DiskCacheWriter::onAddtoCacheQueue, Qt::QueuedConnection);
    connect(r, &videoio::InstantReader::setRAMBufferRangeToUI, this, &InstantReaderWatcher::setRAMBufferRangeToUI);
    connect(r, &videoio::InstantReader::setFilterInitStatus, this,
            &InstantReaderWatcher::handleFilterInitStatusChanged, Qt::QueuedConnection);
    connect(r, &videoio::InstantReader::setSeekingStatus, this, &InstantReaderWatcher::handleSeekingStatusChanged,
            Qt::QueuedConnection);
    connect(r, &videoio::InstantReader::initFilterGraph, v.filterGraphWorker.get(),
            &videoio::FilterGraphWorker::start);
    log(QStringLiteral("InstantReader %1 added to watch list").arg(ptrText(r)));
    const std::lock_guard lock(v.listMutex);
    v.watchList.push_back(instant);
}

void InstantReaderWatcher::clearWatchList()
{
    for (int id : {0, 1}) {
        m_processInfo[id] = QVariantMap{};
        stopView(*m_views[id]);
    }
    // The last references go here, on the caller's thread, as they always did.
    for (const auto &v : m_views) {
        std::vector<std::shared_ptr<videoio::InstantReader>> readers;
        {
            const std::lock_guard lock(v->listMutex);
            readers.swap(v->watchList);
        }
    }
}

void InstantReaderWatcher::clearWatchListatViewID(int viewID)
{
    View *v = view(viewID, "clearWatchListatViewID");
    if (!v)
        return;
    stopView(*v);
    std::vector<std::shared_ptr<videoio::InstantReader>> readers;
    {
        const std::lock_guard lock(v->listMutex);
        readers.swap(v->watchList);
    }
    // Handed over, not copied: the last reference must go on the close thread.
    for (auto &reader : readers)
        enqueueCloseRequest(std::move(reader), viewID);
    m_processInfo[viewID] = QVariantMap{};
}

void InstantReaderWatcher::clearWatchListRAM(int viewID)
{
    if (viewID == -1) {
        clearWatchListRAM();
        return;
    }
    if (View *v = view(viewID, "clearWatchListRAM")) {
        for (const auto &reader : watchListCopy(*v)) {
            if (reader)
                reader->clearFrames();
        }
    }
}

void InstantReaderWatcher::clearWatchListRAM()
{
    clearWatchListRAM(0);
    clearWatchListRAM(1);
}

void InstantReaderWatcher::onPreviewCachedToDisk(QString filename, QPoint range, int view)
{
    emit previewReadyToInject(filename, range, view, m_processInfo.value(view));
}

void InstantReaderWatcher::cacheError(QString path, QString message, int ret)
{
    log(QStringLiteral("caught cache error: %1. Error code: %2").arg(message).arg(ret), ConsoleLogger::Warn);
    qCWarning(lcWatcher).noquote() << "Cache error:" << message << ". Error code:" << ret << path;
}

void InstantReaderWatcher::cacheError(QString path, QString message)
{
    cacheError(path, message, AVERROR_UNKNOWN);
}

void InstantReaderWatcher::onFilterGraphReady(AVFilterContext *src, AVFilterContext *sink, AVFilterGraph *fg,
                                              int counter, int viewID)
{
    View *v = view(viewID, "onFilterGraphReady");
    if (!v) {
        avfilter_graph_free(&fg);
        return;
    }
    pushAndWake(v->graphMutex, v->graphWake, v->filterGraphQueue, FilterGraphReady{src, sink, fg, counter, viewID});
    log(QStringLiteral("^^&& added req for FG ready"));
}

void InstantReaderWatcher::processFilterGraphQueue(int viewID)
{
    View *const own = ownLoopView(viewID, "processFilterGraphQueue");
    if (!own)
        return;
    View &v = *own;
    while (m_running) {
        log(QStringLiteral("Waiting for FG queue item..."));
        std::vector<FilterGraphReady> queue;
        if (!takeNext(v.graphMutex, v.graphWake, v.filterGraphQueue, m_running,
                      [&queue](auto &waiting) { queue.swap(waiting); }))
            return;
        // Only the newest graph matters; the older ones are freed here, and
        // whoever asked for them is asked again for the newest chain.
        FilterGraphReady newest = queue.back();
        queue.pop_back();
        const auto readers = watchListCopy(v);
        std::optional<std::string> newestChain;
        for (const auto &reader : readers) {
            if (reader && reader->hasRequest(newest.counter))
                newestChain = reader->requestedChain(newest.counter);
        }
        if (!newestChain)
            avfilter_graph_free(&newest.fg);
        for (const auto &reader : readers) {
            if (!reader || !newestChain)
                continue;
            log(QStringLiteral("^^&& populated FG ready from processInfo to InstantReader %1").arg(ptrText(reader.get())));
            reader->setFilterGraphOnReady(newest.src, newest.sink, newest.fg, newest.counter);
            log(QStringLiteral("^^&& FINISHED FG ready metaData from processInfo to InstantReader %1")
                    .arg(ptrText(reader.get())));
        }
        for (FilterGraphReady &old : queue) {
            avfilter_graph_free(&old.fg);
            for (const auto &reader : readers) {
                if (!reader || !reader->hasRequest(old.counter))
                    continue;
                reader->dropRequest(old.counter);
                if (newestChain && reader->filterGraphCounter() < newest.counter)
                    reader->requestFilterGraph(*newestChain);
            }
        }
    }
}

void InstantReaderWatcher::processCloseRequests(int viewID)
{
    View *const own = ownLoopView(viewID, "processCloseRequests");
    if (!own)
        return;
    View &v = *own;
    while (m_running) {
        std::shared_ptr<videoio::InstantReader> reader;
        if (!takeNext(v.closeMutex, v.closeWake, v.closeRequests, m_running, [&reader](auto &queue) {
                reader = std::move(queue.front());
                queue.pop_front();
            }))
            return;
        // The costly destruction of a reader falls here, outside the lock.
        reader.reset();
    }
}

void InstantReaderWatcher::enqueueCloseRequest(std::shared_ptr<videoio::InstantReader> reader, int viewID)
{
    if (!reader || !reader->isOpen() || !view(viewID, "enqueueCloseRequest"))
        return;
    View &v = setUpView(viewID);
    log(QStringLiteral("Enqueued IR to close: %1").arg(ptrText(reader.get())));
    pushAndWake(v.closeMutex, v.closeWake, v.closeRequests, std::move(reader));
}

void InstantReaderWatcher::handleSeekingStatusChanged(int viewID, bool status, bool shouldPause)
{
    if (View *v = view(viewID, "handleSeekingStatusChanged")) {
        v->seekingStatus = status;
        wake(v->durationMutex, v->durationWake);
        wake(v->graphMutex, v->graphWake);
    }
    log(QStringLiteral("^^&& Changed seeking status for %1 to %2").arg(viewID).arg(status));
    emit updateSeekingStatus(viewID, status, shouldPause);
}

void InstantReaderWatcher::handleFilterInitStatusChanged(int viewID, bool status, bool shouldPause)
{
    if (View *v = view(viewID, "handleFilterInitStatusChanged")) {
        v->filterInitStatus = status;
        wake(v->durationMutex, v->durationWake);
        wake(v->graphMutex, v->graphWake);
    }
    log(QStringLiteral("^^&& Changed filterinit status for %1 to %2").arg(viewID).arg(status));
    emit updateFilterInitStatus(viewID, status, shouldPause);
}

void InstantReaderWatcher::resetIR(int viewID)
{
    View *v = view(viewID, "resetIR");
    if (!v)
        return;
    stopView(*v);
    for (const auto &reader : watchListCopy(*v)) {
        if (reader)
            reader->clearFrames();
    }
    m_processInfo[viewID].insert(QStringLiteral("filterComplex"), QString());
    wake(v->durationMutex, v->durationWake);
    size_t queued = 0;
    {
        const std::lock_guard lock(v->durationMutex);
        queued = v->fileDurationRequests.size();
    }
    log(QStringLiteral(" ^^&& Enqueued metaData for view %1 to queue size %2 %3").arg(viewID).arg(queued).arg(QString()));
}

void InstantReaderWatcher::testH264reorderError()
{
    cacheError(QString(), QStringLiteral("test error: H.264 pictures out of order"), AVERROR_INVALIDDATA);
}

} // namespace videoplayer
