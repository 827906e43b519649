// The GObject side of kr7src: type, properties, pad template and the
// GstBaseSrc/GstPushSrc methods, each handed to kr7gst::Source; and the
// plug-in "kr7" that registers the element.
#include "gstkr7src.h"

#include <gst/video/video.h>

#include <string>

#include "source.h"

GST_DEBUG_CATEGORY(gst_kr7_src_debug);
#define GST_CAT_DEFAULT gst_kr7_src_debug

struct _GstKr7Src {
    GstPushSrc parent;
    kr7gst::Source* source;
};

G_DEFINE_TYPE(GstKr7Src, gst_kr7_src, GST_TYPE_PUSH_SRC)

namespace {

enum {
    PROP_0,
    PROP_DEVICE,
    PROP_MODE,
    PROP_PLUGIN,
    PROP_VIRTUAL,
    PROP_RESULTS_ONLY,
    PROP_SERIAL,
    PROP_FRAMES_DROPPED,
};

GstStaticPadTemplate g_SrcTemplate = GST_STATIC_PAD_TEMPLATE(
    "src", GST_PAD_SRC, GST_PAD_ALWAYS,
    GST_STATIC_CAPS("video/x-raw, format = (string) GRAY8, width = (int) [ 1, 16384 ], "
                    "height = (int) [ 1, 16384 ], framerate = (fraction) 0/1, "
                    "pixel-aspect-ratio = (fraction) 1/1"));

kr7gst::Source& SourceOf(gpointer object) {
    return *GST_KR7_SRC(object)->source;
}

void SetProperty(GObject* object, guint id, const GValue* value, GParamSpec* param) {
    kr7gst::Source& source = SourceOf(object);
    if ((id == PROP_DEVICE || id == PROP_PLUGIN || id == PROP_VIRTUAL) && source.Loaded()) {
        GST_WARNING_OBJECT(object, "%s takes effect at the next NULL to READY change",
                           g_param_spec_get_name(param));
    }
    switch (id) {
        case PROP_DEVICE: {
            const int device = g_value_get_int(value);
            source.Configure([device](kr7gst::Settings& s) { s.device = device; });
            break;
        }
        case PROP_MODE: {
            const auto mode = static_cast<vc::eCaptureModeIDs>(g_value_get_enum(value));
            source.Configure([mode](kr7gst::Settings& s) { s.mode = mode; });
            break;
        }
        case PROP_PLUGIN: {
            const gchar* text = g_value_get_string(value);
            const std::string plugin = text != nullptr ? text : "";
            source.Configure([&plugin](kr7gst::Settings& s) {
                s.plugin = plugin.empty() ? kr7host::kPluginName : plugin;
            });
            break;
        }
        case PROP_VIRTUAL: {
            const bool on = g_value_get_boolean(value) != FALSE;
            source.Configure([on](kr7gst::Settings& s) { s.virtualScanner = on; });
            break;
        }
        case PROP_RESULTS_ONLY: {
            const bool on = g_value_get_boolean(value) != FALSE;
            source.Configure([on](kr7gst::Settings& s) { s.resultsOnly = on; });
            break;
        }
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, param);
            break;
    }
}

void GetProperty(GObject* object, guint id, GValue* value, GParamSpec* param) {
    kr7gst::Source& source = SourceOf(object);
    switch (id) {
        case PROP_DEVICE:
            g_value_set_int(value, source.Current().device);
            break;
        case PROP_MODE:
            g_value_set_enum(value, source.Current().mode);
            break;
        case PROP_PLUGIN:
            g_value_set_string(value, source.Current().plugin.c_str());
            break;
        case PROP_VIRTUAL:
            g_value_set_boolean(value, source.Current().virtualScanner);
            break;
        case PROP_RESULTS_ONLY:
            g_value_set_boolean(value, source.Current().resultsOnly);
            break;
        case PROP_SERIAL: {
            const std::string serial = source.Serial();
            g_value_set_string(value, serial.empty() ? nullptr : serial.c_str());
            break;
        }
        case PROP_FRAMES_DROPPED:
            g_value_set_uint64(value, source.FramesDropped());
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, param);
            break;
    }
}

void Finalize(GObject* object) {
    delete GST_KR7_SRC(object)->source;
    G_OBJECT_CLASS(gst_kr7_src_parent_class)->finalize(object);
}

GstStateChangeReturn ChangeState(GstElement* element, GstStateChange transition) {
    kr7gst::Source& source = SourceOf(element);
    switch (transition) {
        case GST_STATE_CHANGE_NULL_TO_READY:
            if (!source.Open()) {
                return GST_STATE_CHANGE_FAILURE;
            }
            break;
        case GST_STATE_CHANGE_PAUSED_TO_PLAYING:
            // The pipeline's base time is set: frames are stamped from now.
            source.SetPlaying(true);
            break;
        case GST_STATE_CHANGE_PLAYING_TO_PAUSED:
            source.SetPlaying(false);
            break;
        default:
            break;
    }
    const GstStateChangeReturn result =
        GST_ELEMENT_CLASS(gst_kr7_src_parent_class)->change_state(element, transition);
    if (result == GST_STATE_CHANGE_FAILURE) {
        if (transition == GST_STATE_CHANGE_NULL_TO_READY) {
            source.Close();
        }
        return result;
    }
    if (transition == GST_STATE_CHANGE_READY_TO_NULL) {
        source.Close();
    }
    return result;
}

gboolean Start(GstBaseSrc* base) {
    return SourceOf(base).Start();
}

gboolean Stop(GstBaseSrc* base) {
    SourceOf(base).Stop();
    return TRUE;
}

gboolean Unlock(GstBaseSrc* base) {
    SourceOf(base).Unlock();
    return TRUE;
}

gboolean UnlockStop(GstBaseSrc* base) {
    SourceOf(base).UnlockStop();
    return TRUE;
}

GstCaps* GetCaps(GstBaseSrc* base, GstCaps* filter) {
    return SourceOf(base).Caps(filter);
}

gboolean Negotiate(GstBaseSrc* base) {
    return SourceOf(base).Negotiate();
}

// The element's own pool serves every frame: none is taken from downstream.
gboolean DecideAllocation(GstBaseSrc*, GstQuery* query) {
    while (gst_query_get_n_allocation_pools(query) > 0) {
        gst_query_remove_nth_allocation_pool(query, 0);
    }
    return TRUE;
}

gboolean Query(GstBaseSrc* base, GstQuery* query) {
    if (GST_QUERY_TYPE(query) == GST_QUERY_LATENCY) {
        // Frames are stamped when they arrive, and wait in the queue at
        // most its length.
        gst_query_set_latency(query, TRUE, 0, kr7gst::kLiveFrames * kr7gst::kFramePeriod);
        return TRUE;
    }
    return GST_BASE_SRC_CLASS(gst_kr7_src_parent_class)->query(base, query);
}

GstFlowReturn Create(GstPushSrc* push, GstBuffer** buffer) {
    return SourceOf(push).Create(buffer);
}

}  // namespace

GType gst_kr7_src_mode_get_type(void) {
    static gsize type = 0;
    static const GEnumValue kModes[] = {
        {vc::eCaptureLive, "Live frames, every one", "live"},
        {vc::eCapturePlainFinger, "Plain finger: frames, and a result per placement", "plain"},
        {vc::eCaptureFastPlainFinger, "Fast plain finger: a shorter decision", "fastplain"},
        {vc::eCaptureRolledFinger, "Rolled finger: a result per roll", "rolled"},
        {vc::eCapturePreview, "Preview: stills from GetImage", "preview"},
        {0, nullptr, nullptr},
    };
    if (g_once_init_enter(&type)) {
        g_once_init_leave(&type, g_enum_register_static("GstKr7SrcMode", kModes));
    }
    return static_cast<GType>(type);
}

static void gst_kr7_src_class_init(GstKr7SrcClass* klass) {
    GObjectClass* object = G_OBJECT_CLASS(klass);
    GstElementClass* element = GST_ELEMENT_CLASS(klass);
    GstBaseSrcClass* base = GST_BASE_SRC_CLASS(klass);
    GstPushSrcClass* push = GST_PUSH_SRC_CLASS(klass);

    object->set_property = SetProperty;
    object->get_property = GetProperty;
    object->finalize = Finalize;

    const auto readWrite = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
    const auto mutableReady = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS |
                                                       GST_PARAM_MUTABLE_READY);
    const auto readOnly = static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);
    g_object_class_install_property(
        object, PROP_DEVICE,
        g_param_spec_int("device", "Device",
                         "The scanner's interface number (kr7 list shows them); -1: the first "
                         "listed. Takes effect when the element goes from NULL to READY",
                         -1, G_MAXINT, -1, readWrite));
    g_object_class_install_property(
        object, PROP_MODE,
        g_param_spec_enum("mode", "Mode", "The plug-in's capture mode", GST_TYPE_KR7_SRC_MODE,
                          vc::eCaptureLive, mutableReady));
    g_object_class_install_property(
        object, PROP_PLUGIN,
        g_param_spec_string(
            "plugin", "Plug-in",
            "The frame-grabber plug-in file, a path or a name the loader looks up; with "
            "virtual=true an element in the build tree takes the plug-in built there. Takes "
            "effect when the element goes from NULL to READY",
            kr7host::kPluginName, readWrite));
    g_object_class_install_property(
        object, PROP_VIRTUAL,
        g_param_spec_boolean(
            "virtual", "Virtual scanner",
            "Load the virtual scanner's libraries first, as kr7 --virtual does (from "
            "KR7_SIM_DIR, else the installed norvakkr7fg/sim folder, else the build tree's); "
            "KR7SIM_* variables configure it. Takes effect when the element goes from NULL to "
            "READY",
            FALSE, readWrite));
    g_object_class_install_property(
        object, PROP_RESULTS_ONLY,
        g_param_spec_boolean("results-only", "Results only",
                             "Push only the finger results (plain, fastplain, rolled), one "
                             "buffer per result; a kr7-result message comes for every result "
                             "either way",
                             FALSE, mutableReady));
    g_object_class_install_property(
        object, PROP_SERIAL,
        g_param_spec_string("serial", "Serial number", "The scanner's serial number, from READY on",
                            nullptr, readOnly));
    g_object_class_install_property(
        object, PROP_FRAMES_DROPPED,
        g_param_spec_uint64("frames-dropped", "Frames dropped",
                            "Live frames let go since the capture started because the pipeline "
                            "fell behind (the oldest go first; finger results never)",
                            0, G_MAXUINT64, 0, readOnly));

    gst_element_class_add_static_pad_template(element, &g_SrcTemplate);
    gst_element_class_set_static_metadata(
        element, "KR7 fingerprint scanner source", "Source/Video/Hardware",
        "Frames and finger results of a KR7 fingerprint scanner, through its frame-grabber "
        "plug-in libnorvakkr7fg.so.1; results also as kr7-result element messages",
        "norvakkr7fg developers <kr7-packages@norvak.invalid>");
    element->change_state = ChangeState;

    base->start = Start;
    base->stop = Stop;
    base->unlock = Unlock;
    base->unlock_stop = UnlockStop;
    base->get_caps = GetCaps;
    base->negotiate = Negotiate;
    base->decide_allocation = DecideAllocation;
    base->query = Query;
    push->create = Create;

    gst_type_mark_as_plugin_api(GST_TYPE_KR7_SRC_MODE, static_cast<GstPluginAPIFlags>(0));
}

static void gst_kr7_src_init(GstKr7Src* self) {
    self->source = new kr7gst::Source(GST_BASE_SRC(self));
    gst_base_src_set_live(GST_BASE_SRC(self), TRUE);
    gst_base_src_set_format(GST_BASE_SRC(self), GST_FORMAT_TIME);
    gst_base_src_set_do_timestamp(GST_BASE_SRC(self), FALSE);
}

// ---- the plug-in ----------------------------------------------------------------

static gboolean plugin_init(GstPlugin* plugin) {
    GST_DEBUG_CATEGORY_INIT(gst_kr7_src_debug, "kr7src", 0, "KR7 fingerprint scanner source");
    return gst_element_register(plugin, "kr7src", GST_RANK_NONE, GST_TYPE_KR7_SRC);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, kr7,
                  "KR7 fingerprint scanners through their frame-grabber plug-in", plugin_init,
                  KR7_VERSION, "Proprietary", "norvakkr7fg", "https://norvak.invalid/kr7")
