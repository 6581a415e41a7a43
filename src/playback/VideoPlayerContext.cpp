#include "playback/VideoPlayerContext.h"

#include "playback/MPVObject.h"

#include <QMetaType>

#include <mutex>
#include <vector>

namespace {

template <typename List, typename Item>
std::vector<MPVObject *> panesOf(const List &list, Item (*toObject)(const typename List::value_type &))
{
    std::vector<MPVObject *> items;
    for (const auto &item : list)
        items.push_back(qobject_cast<MPVObject *>(toObject(item)));
    return items;
}

QObject *fromVariant(const QVariant &item)
{
    return item.value<QObject *>();
}

QObject *fromObject(QObject *const &item)
{
    return item;
}

} // namespace

VideoPlayerContext::VideoPlayerContext(QObject *parent)
    : QObject(parent)
{
    // QML hands the panes over as a JavaScript array of items.
    static std::once_flag once;
    std::call_once(once, [] {
        QMetaType::registerConverter<QVariantList, std::vector<MPVObject *>>(
            [](const QVariantList &list) { return panesOf(list, &fromVariant); });
        QMetaType::registerConverter<QList<QObject *>, std::vector<MPVObject *>>(
            [](const QList<QObject *> &list) { return panesOf(list, &fromObject); });
    });
}

bool VideoPlayerContext::getIsPlaying() const
{
    return isPlaying;
}
