#include "videoio/FilterGraphWorker.h"

#include <QLoggingCategory>
#include <QMetaType>

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavutil/error.h>
#include <libavutil/opt.h>
}

Q_LOGGING_CATEGORY(lcFilterGraph, "kutils.videoio")

namespace videoio {
namespace {

struct InOutDeleter
{
    void operator()(AVFilterInOut *io) const { avfilter_inout_free(&io); }
};
using InOutPtr = std::unique_ptr<AVFilterInOut, InOutDeleter>;

std::string errorText(int code)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

} // namespace

FilterGraphWorker::FilterGraphWorker()
{
    // The graph crosses threads through queued connections.
    qRegisterMetaType<std::string>("std::string");
    qRegisterMetaType<AVFilterContext *>("AVFilterContext*");
    qRegisterMetaType<AVFilterGraph *>("AVFilterGraph*");
}

FilterGraphWorker::Graph FilterGraphWorker::build(const std::string &filterDescription,
                                                  const std::string &sourceArguments, std::string *error)
{
    const auto fail = [error](const std::string &why, int code) {
        if (error)
            *error = why + ": " + errorText(code);
        return Graph{};
    };

    Graph result;
    result.graph.reset(avfilter_graph_alloc());
    if (!result.graph)
        return fail("no memory for a filter graph", AVERROR(ENOMEM));
    // Heavy filters (denoisers, deinterlacers) split a picture into slices:
    // one render per view would otherwise use one core for them.
    result.graph->nb_threads = 0;

    int r = avfilter_graph_create_filter(&result.source, avfilter_get_by_name("buffer"), "in",
                                         sourceArguments.c_str(), nullptr, result.graph.get());
    if (r < 0)
        return fail("bad source arguments \"" + sourceArguments + "\"", r);

    int64_t format = AV_PIX_FMT_NONE;
    r = av_opt_get_int(result.source, "pix_fmt", AV_OPT_SEARCH_CHILDREN, &format);
    if (r < 0 || format == AV_PIX_FMT_NONE)
        return fail("source arguments name no pixel format", r < 0 ? r : AVERROR(EINVAL));

    result.sink = avfilter_graph_alloc_filter(result.graph.get(), avfilter_get_by_name("buffersink"), "out");
    if (!result.sink)
        return fail("no buffer sink", AVERROR(ENOMEM));
    const AVPixelFormat sinkFormats[] = {static_cast<AVPixelFormat>(format), AV_PIX_FMT_NONE};
    r = av_opt_set_int_list(result.sink, "pix_fmts", sinkFormats, AV_PIX_FMT_NONE, AV_OPT_SEARCH_CHILDREN);
    if (r >= 0)
        r = avfilter_init_str(result.sink, nullptr);
    if (r < 0)
        return fail("buffer sink refused its pixel format", r);

    // Chains cut from render commands name their ends ("[0:v]scale=...[v]"):
    // whatever the labels, the one open input takes the pictures and the one
    // open output gives them.
    const std::string chain = filterDescription.empty() ? std::string("null") : filterDescription;
    AVFilterInOut *openInputs = nullptr;
    AVFilterInOut *openOutputs = nullptr;
    r = avfilter_graph_parse2(result.graph.get(), chain.c_str(), &openInputs, &openOutputs);
    const InOutPtr inputs(openInputs);
    const InOutPtr outputs(openOutputs);
    if (r < 0)
        return fail("bad filter chain \"" + filterDescription + "\"", r);
    if (!inputs || inputs->next || !outputs || outputs->next)
        return fail("filter chain \"" + filterDescription + "\" must have one input and one output",
                    AVERROR(EINVAL));
    r = avfilter_link(result.source, 0, inputs->filter_ctx, static_cast<unsigned>(inputs->pad_idx));
    if (r >= 0)
        r = avfilter_link(outputs->filter_ctx, static_cast<unsigned>(outputs->pad_idx), result.sink, 0);
    if (r < 0)
        return fail("filter chain \"" + filterDescription + "\" does not link", r);

    r = avfilter_graph_config(result.graph.get(), nullptr);
    if (r < 0)
        return fail("filter chain \"" + filterDescription + "\" does not configure", r);
    return result;
}

void FilterGraphWorker::start(std::string filterDescription, std::string sourceArguments, int counter, int viewID)
{
    std::string error;
    Graph built = build(filterDescription, sourceArguments, &error);
    if (!built.graph) {
        qCWarning(lcFilterGraph).noquote() << "Filter graph" << counter << "of view" << viewID
                                           << "not built:" << QString::fromStdString(error);
        return;
    }
    emit filterGraphReady(built.source, built.sink, built.graph.release(), counter, viewID);
}

} // namespace videoio
