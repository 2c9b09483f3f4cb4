"""Two processes draw on raw frames where they lie in the ring, and those after them see it:
test_in_place.py [CASE...]"""

import sys

from launching import BufferLog, LaunchTest, require_elements, run_tests

FRAMES = 60
VIDEO = (
    f"videotestsrc num-buffers={FRAMES} pattern=ball"
    " ! video/x-raw,format=I420,width=1920,height=1080,framerate=30/1"
)
DRAWINGS = (
    'textoverlay text=one font-desc="Sans 40" valignment=top',
    'textoverlay text=two font-desc="Sans 40" valignment=bottom',
)
LOOKS = "fakesink sync=false enable-last-sample=false"


class InPlace(LaunchTest):
    def test_stages_of_five_processes_draw_on_the_frame_itself(self):
        alone = BufferLog()
        self.run_to_the_end(VIDEO, "!", " ! ".join(DRAWINGS), "!", alone, f"! {LOOKS}")
        alone.wait_for_end()

        ring = self.ring()
        logs = {node: BufferLog() for node in range(5)}
        stages = [
            self.launch(
                f"qevsrc name={ring} node={node} writable=true !", logs[node], "!", drawing,
                f"! {LOOKS}",
            )
            for node, drawing in enumerate(DRAWINGS, 1)
        ]  # fmt: skip
        stages += [
            self.launch(f"qevsrc name={ring} node={node} {last} !", logs[node], f"! {LOOKS}")
            for node, last in ((3, ""), (4, "sink=true"))
        ]
        writer = self.launch(VIDEO, "!", logs[0], f"! qevsink name={ring} size={64 << 20}")
        self.assert_ends_well(writer, *stages)
        for log in logs.values():
            log.wait_for_end()
            self.assertEqual(len(log.buffers()), FRAMES)

        self.assert_same_buffers(logs[1].buffers(), logs[0].buffers())
        drawn_once = [one.md5 for one in logs[2].buffers()]
        for node in 3, 4:
            self.assertEqual(
                [one.md5 for one in logs[node].buffers()], [one.md5 for one in alone.buffers()]
            )
        for others in logs[0], alone:
            self.assertFalse(set(drawn_once) & {one.md5 for one in others.buffers()})
        for node, access in ((1, "writable"), (2, "writable"), (3, "readonly"), (4, "readonly")):
            self.assertEqual({one.access for one in logs[node].buffers()}, {access}, node)
        for node, stage in enumerate(stages, 1):
            stats = stage.stats()[ring]
            self.assertEqual((stats["packets"], stats["copies"]), (FRAMES, 0), node)


if __name__ == "__main__":
    require_elements("textoverlay")
    run_tests(sys.argv[1:])
