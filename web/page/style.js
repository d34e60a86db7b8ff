// The style sheet's colours, for canvases.

/** As they are now: light or dark. */
export function styled() {
  const style = getComputedStyle(document.documentElement);
  const color = (name) => style.getPropertyValue(`--${name}`).trim();
  return {
    text: color("text"), faint: color("faint"), wave: color("wave"), second: color("second"),
    bad: color("bad"), ground: color("ground"),
  };
}
