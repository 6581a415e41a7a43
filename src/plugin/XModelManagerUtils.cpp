#include "plugin/XModelManagerUtils.h"

XModelManagerUtils::XModelManagerUtils(QObject *parent)
    : QObject(parent)
{
}

bool XModelManagerUtils::includes(QStringList stringList1, QStringList stringList2)
{
    // On unsorted lists the answer is whatever this walk gives; that is kept.
    auto second = stringList2.cbegin();
    for (auto first = stringList1.cbegin(); first != stringList1.cend(); ++first) {
        if (second == stringList2.cend())
            return true;
        if (*second < *first)
            return false;
        if (!(*first < *second))
            ++second;
    }
    return second == stringList2.cend();
}
