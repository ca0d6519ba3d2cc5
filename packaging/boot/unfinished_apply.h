// An apply of a configuration that was cut short.
#pragma once

// One whose job has ended already is not applied again: when the device boots with what that end says, what would
// resume it is deleted. So is what is left without the job or without the candidate to resume it with: it would be
// taken for the job or the candidate of the next apply, or refuse every request. The device's own record of an
// upgrade that is over goes too.
void finish_apply();
