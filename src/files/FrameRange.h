#pragma once

#include <QString>

#include <functional>

// First and last frame of a numbered sequence, both inclusive. A range whose
// last lies before its first holds no frame.
struct FrameRange
{
    int first = 0;
    int last = -1;

    int count() const { return last >= first ? last - first + 1 : 0; }
};

// A frame file name cut around its number: prefix, number padded with zeros
// to `padding` digits, suffix.
struct FramePattern
{
    QString prefix;
    QString suffix;
    int padding = 1;
    qint64 start = 0;
    bool valid = false;

    // The last run of digits in the whole path is the frame number, even in a
    // folder name when the file name has none. A run that does not fit an
    // `int` makes no pattern.
    static FramePattern fromFramePath(const QString &path);
    // A printf pattern ("%06d", "%d") as oiiotool reads it, with the frame
    // the sequence starts from.
    static FramePattern fromFormat(const QString &format, qint64 start);

    QString frameName(qint64 frame) const;
    // "%0<padding>d" when the number has a leading zero, else "%d".
    QString formatString() const;
};

// The path with its last run of digits replaced by "%0<n>d" when the run has
// a leading zero, else by "%d"; a path without digits stays as it is.
QString frameFormatOf(const QString &path);

using FileExists = std::function<bool(const QString &path)>;

bool fileExistsOnDisk(const QString &path);

// Finds the sequence around `pattern.start` by file tests alone, never a
// folder listing: a walk down from the start, a gallop up and a binary search
// between the last frame seen and the first one missing. A hole in the
// sequence ends it early. Frames above 2147483647 are never probed.
FrameRange searchFrameRange(const FramePattern &pattern, const FileExists &exists = fileExistsOnDisk);
FrameRange findFrameRange(const QString &path, const FileExists &exists = fileExistsOnDisk);
