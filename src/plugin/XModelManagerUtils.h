#pragma once

#include <QObject>
#include <QStringList>

class XModelManagerUtils : public QObject
{
    Q_OBJECT

public:
    explicit XModelManagerUtils(QObject *parent = nullptr);

    // Whether every element of stringList2 occurs in stringList1, by one merge
    // walk; both lists are expected sorted ascending by the caller.
    Q_INVOKABLE bool includes(QStringList stringList1, QStringList stringList2);
};
