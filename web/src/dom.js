// SPDX-License-Identifier: Apache-2.0
export const byId = (id) => document.getElementById(id);

/** An element with properties and attributes ("aria-…", "data-…") and children, null ones left out. */
export function element(name, properties = {}, ...children) {
  const made = document.createElement(name);
  for (const [key, value] of Object.entries(properties)) {
    if (key.includes('-')) made.setAttribute(key, value);
    else made[key] = value;
  }
  made.append(...children.filter((child) => child !== null));
  return made;
}
