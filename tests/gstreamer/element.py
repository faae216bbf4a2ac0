"""Pictures for the GStreamer element, as buffers, and the element between two pads of the test.

TAVRO_PICTURE names a photograph, I420 of 160x120 pixels with one face.
"""

import os

import gi
import numpy as np

gi.require_version("Gst", "1.0")
gi.require_version("GstVideo", "1.0")
from gi.repository import Gst, GstVideo  # noqa: E402

from application import SEED, Frame  # noqa: E402

FRAME_TIME = 40 * Gst.MSECOND
PICTURE = os.environ["TAVRO_PICTURE"]
COLOUR = (173, 42, 26)  # of the outlines


def portrait(width=160, height=120, shift=0):
    """The photograph at that size, moved to the right by so many columns, which come in again."""
    photograph = Frame(160, 120, np.split(np.fromfile(PICTURE, np.uint8), [19200, 24000]))
    frame = Frame(width, height, [])
    for plane in range(3):
        columns, rows = photograph.plane_size(plane)
        samples = photograph.planes[plane].reshape(rows, columns)
        width, height = frame.plane_size(plane)
        stretched = samples[np.arange(height)[:, None] * rows // height,
                            np.arange(width) * columns // width]
        frame.planes.append(np.roll(stretched, shift // 2 if plane else shift, axis=1).tobytes())
    return frame


def rows_of(frame, form):
    """The planes of a buffer with the frame, as rows of bytes."""
    y, u, v = (np.frombuffer(frame.planes[plane], np.uint8).reshape(frame.plane_size(plane)[::-1])
               for plane in range(3))
    return [y, u, v] if form == "I420" else [y, np.dstack((u, v)).reshape(len(u), -1)]


def distant(left):
    """The photograph at 80x60 pixels in a grey frame of 800x600, beginning at that column."""
    return Frame(800, 600, [
        np.pad(rows, ((400 // part, 140 // part), (left // part, (720 - left) // part)),
               constant_values=128).tobytes()
        for rows, part in zip(rows_of(portrait(80, 60), "I420"), (1, 2, 2))])


def buffer_of(frame, form="I420", padding=0, padding_v=0):
    """A buffer with the frame. That much noise is behind every row and before every plane."""
    random = np.random.default_rng(SEED)
    content, offsets, strides = b"", [0] * 4, [0] * 4
    planes = rows_of(frame, form)
    for plane, rows in enumerate(planes):
        content += random.bytes(padding)
        height, width = rows.shape
        offsets[plane], strides[plane] = len(content), width + padding + padding_v * (plane == 2)
        padded = random.integers(0, 256, (height, strides[plane])).astype(np.uint8)
        padded[:, :width] = rows
        content += padded.tobytes()
    buffer = Gst.Buffer.new_allocate(None, len(content), None)
    buffer.fill(0, content)
    GstVideo.buffer_add_video_meta_full(
        buffer, GstVideo.VideoFrameFlags.NONE, GstVideo.VideoFormat.from_string(form), frame.width,
        frame.height, len(planes), offsets, strides)
    return buffer


def bytes_of(buffer):
    return buffer.extract_dup(0, buffer.get_size())


def faces_on(buffer):
    """The faces that a buffer carries: their corners by their numbers."""
    faces = {}
    for number in range(1, 50):
        region = GstVideo.buffer_get_video_region_of_interest_meta_id(buffer, number)
        if region:
            faces[number] = (region.x, region.y, region.x + region.w, region.y + region.h)
    return faces


def outlined(frame, face):
    """The frame with two samples of colour inside of the rectangle, whose corners are put on even
    places except at the picture's own border."""
    planes = []
    for plane, colour in enumerate(COLOUR):
        left, top, right, bottom = (
            corner if corner == size else corner // 2 * 2 for corner, size in
            zip((*face[:2], face[2] + 1, face[3] + 1), (-1, -1, frame.width + 1, frame.height + 1)))
        part, line = (2, 1) if plane else (1, 2)
        rows = rows_of(frame, "I420")[plane].copy()
        inside = rows[top // part:-(-bottom // part), left // part:-(-right // part)]
        kept = inside[line:-line, line:-line].copy()
        inside[:] = colour
        inside[line:-line, line:-line] = kept
        planes.append(rows.tobytes())
    return Frame(frame.width, frame.height, planes)


def hidden_part(face, plane, form, margin=25):
    """The rows and columns of a plane in which a face with its margin is hidden."""
    left, top, right, bottom = face
    across, down = ((end - start) * margin // 100 for start, end in
                    ((left, right), (top, bottom)))
    part = 2 if plane else 1
    columns = 2 if plane and form == "NV12" else 1  # bytes of a column
    return (slice(max(top - down, 0) // part, -(-(bottom + down) // part)),
            slice(max(left - across, 0) // part * columns, -(-(right + across) // part) * columns))


class Element:
    """An element that is fed and emptied by the test."""

    def __init__(self, width=160, height=120, form="I420", **properties):
        self.element = Gst.ElementFactory.make("tavrofacedetect")
        self.bus = Gst.Bus()
        self.element.set_bus(self.bus)
        for name, value in properties.items():
            Gst.util_set_object_arg(self.element, name.replace("_", "-"), value)
        self.passed, self.count, self.result = [], 0, None
        self.feed = Gst.Pad.new("feed", Gst.PadDirection.SRC)
        anything = Gst.PadTemplate.new(
            "drain", Gst.PadDirection.SINK, Gst.PadPresence.ALWAYS, Gst.Caps.new_any())
        self.drain = Gst.Pad.new_from_template(anything, "drain")
        self.drain.set_chain_function_full(self.keep)
        self.feed.link(self.element.get_static_pad("sink"))
        self.element.get_static_pad("src").link(self.drain)
        for pad in (self.feed, self.drain):
            pad.set_active(True)
        self.element.set_state(Gst.State.PLAYING)
        self.feed.push_event(Gst.Event.new_stream_start("stream"))
        self.announce(width, height, form)
        self.begin()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.element.set_state(Gst.State.NULL)
        self.element.set_bus(None)

    def keep(self, _pad, _parent, buffer):
        self.passed.append(buffer)
        return Gst.FlowReturn.OK

    def announce(self, width, height, form="I420"):
        self.form = form
        self.feed.push_event(Gst.Event.new_caps(Gst.Caps.from_string(
            f"video/x-raw,format={form},width={width},height={height},framerate=25/1")))

    def begin(self):
        segment = Gst.Segment()
        segment.init(Gst.Format.TIME)
        self.feed.push_event(Gst.Event.new_segment(segment))

    def put(self, buffer):
        """What comes out for a buffer, or None."""
        buffer.pts, buffer.duration = FRAME_TIME * self.count, FRAME_TIME
        self.count += 1
        self.result = self.feed.push(buffer)
        return self.passed.pop() if self.passed else None

    def faces_in(self, frame):
        """The corners of the faces with which the frame comes out, by their numbers."""
        return faces_on(self.put(buffer_of(frame, self.form)))

    def rectangles_in(self, frame):
        return list(self.faces_in(frame).values())

    def messages(self):
        """The structures of all messages about faces."""
        return [message.get_structure() for message in
                iter(lambda: self.bus.pop_filtered(Gst.MessageType.ELEMENT), None)]
