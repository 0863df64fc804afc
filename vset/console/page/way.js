// What of the state machine was passed, as far as the way tells.

// A state is certain when its number was logged, and also when the daemon was before and after it: an inferred
// one that was left again, and one that passed between two seconds without a trace, whose neighbours are known.
// `next` are the states' direct neighbours, [from, to]. Gives a map: state to "logged" (passed) or "inferred".
export function passedStates(steps, next) {
  const passed = new Map();
  steps.forEach((step, index) => {
    const isLeft = index + 1 < steps.length;
    passed.set(step.state, isLeft ? "logged" : passed.get(step.state) ?? step.source);
    if (isLeft) {
      for (const state of between(step.state, steps[index + 1].state, next)) passed.set(state, "logged");
    }
  });
  return passed;
}

// The one state on the only way from one to another; none when they are neighbours themselves, or further apart.
function between(from, to, next) {
  if (next.some(([start, end]) => start === from && end === to)) return [];
  const middles = next.filter(([start]) => start === from).map(([, end]) => end)
    .filter((middle) => next.some(([start, end]) => start === middle && end === to));
  return middles.length === 1 ? middles : [];
}
