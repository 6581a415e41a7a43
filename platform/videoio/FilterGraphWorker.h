#pragma once

#include <QObject>

extern "C" {
#include <libavfilter/avfilter.h>
}

#include <memory>
#include <string>

namespace videoio {

struct FilterGraphDeleter
{
    void operator()(AVFilterGraph *graph) const { avfilter_graph_free(&graph); }
};
using FilterGraphPtr = std::unique_ptr<AVFilterGraph, FilterGraphDeleter>;

// Builds libavfilter graphs away from the thread that decodes, since parsing
// and configuring a chain of heavy filters can take a while.
//
// start(filterDescription, sourceArguments, counter, viewID):
// - filterDescription: a filter chain in FFmpeg's filter syntax ("hflip",
//   "scale=160:-2,negate"), with one input and one output; empty passes the
//   pictures through unchanged;
// - sourceArguments: the options of the buffer source that describes the
//   pictures going in, "video_size=WxH:pix_fmt=F:time_base=N/D:pixel_aspect=N/D";
// - counter: the requester's number of the request, handed back unchanged so
//   that the requester recognises its graph and can tell a newer from an older one;
// - viewID: the view the request is for, handed back unchanged.
//
// The graph is buffer source -> chain -> buffer sink, configured so that the
// sink gives pictures in the source's pixel format whatever the chain does in
// between. filterGraphReady hands over the graph: the receiver owns it from
// then on (the two filter contexts belong to the graph). A chain that doesn't
// parse or configure is logged and nothing is emitted.
class FilterGraphWorker : public QObject
{
    Q_OBJECT
public:
    FilterGraphWorker();

    struct Graph
    {
        AVFilterContext *source = nullptr;
        AVFilterContext *sink = nullptr;
        FilterGraphPtr graph;
    };
    // The graph of the above, or an empty one with the reason in `error`.
    static Graph build(const std::string &filterDescription, const std::string &sourceArguments,
                       std::string *error);

public slots:
    void start(std::string filterDescription, std::string sourceArguments, int counter, int viewID);

signals:
    void filterGraphReady(AVFilterContext *src, AVFilterContext *sink, AVFilterGraph *fg, int counter,
                          int viewID);
};

} // namespace videoio
