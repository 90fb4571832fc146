// SPDX-License-Identifier: Apache-2.0
// Elements, made without a parser: nothing that comes from a gateway can become markup.

const SVG = "http://www.w3.org/2000/svg";

export function svg(name, attributes = {}, ...children) {
  const element = document.createElementNS(SVG, name);
  for (const [key, value] of Object.entries(attributes)) element.setAttribute(key, value);
  element.append(...children);
  return element;
}

export function html(name, attributes = {}, ...children) {
  const element = document.createElement(name);
  for (const [key, value] of Object.entries(attributes)) element.setAttribute(key, value);
  element.append(...children);
  return element;
}

/** Sets what is not so already: a screen reader speaks of what changes. */
export function say(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

export function dress(element, classes) {
  if (element.getAttribute("class") !== classes) element.setAttribute("class", classes);
}
