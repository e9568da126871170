"use strict";

// The menu of narrow screens.

document.documentElement.classList.add("scripted");
const menuButton = document.getElementById("menu-button");
menuButton.hidden = false;
menuButton.addEventListener("click", () => {
  const open = document.getElementById("menu").classList.toggle("open");
  menuButton.setAttribute("aria-expanded", String(open));
  scrollTo(0, 0);
});
document.querySelector("#menu [aria-current]")?.scrollIntoView({ block: "nearest" });
scrollTo(0, location.hash ? scrollY : 0);

// The search. Its index is a script, so that it also works from files, and is loaded when wanted.
// Every word has to occur. Titles count for more than texts, and the words in one piece for more
// than the words apart.

const field = document.getElementById("search");
const results = document.getElementById("results");
const kMost = 12;
let loading = null;

function loadIndex() {
  loading ??= new Promise((resolve, reject) => {
    const script = document.createElement("script");
    script.src = "search-index.js";
    script.onload = resolve;
    script.onerror = reject;
    document.head.append(script);
  });
  return loading;
}

function score([, page, section, text], wanted) {
  let sum = 0;
  const title = (section || page).toLowerCase();
  for (const word of wanted) {
    if (title === word || title.endsWith("::" + word)) {
      sum += section ? 60 : 80;
    } else if (title.includes(word)) {
      sum += 20;
    } else if (page.toLowerCase().includes(word)) {
      sum += 8;
    } else if (text.toLowerCase().includes(word)) {
      sum += 2;
    } else {
      return 0;
    }
  }
  return sum + (text.toLowerCase().includes(wanted.join(" ")) ? 10 : 0);
}

function excerpt(text, wanted) {
  const lower = text.toLowerCase();
  const phrase = lower.indexOf(wanted.join(" "));
  const at = Math.max(0, phrase >= 0 ? phrase : lower.indexOf(wanted[0]));
  const from = Math.max(0, at - 40);
  const to = from + 130;
  return (from > 0 ? "… " : "") + text.slice(from, to) + (to < text.length ? " …" : "");
}

function resultFor([url, page, section, text], wanted) {
  const link = document.createElement("a");
  link.href = url;
  link.append(section ? `${page}: ${section}` : page);
  const part = document.createElement("small");
  part.textContent = excerpt(text, wanted);
  link.append(part);
  const item = document.createElement("li");
  item.append(link);
  return item;
}

async function showResults() {
  await loadIndex();
  const wanted = field.value.toLowerCase().split(/\s+/).filter(Boolean);
  results.hidden = wanted.length === 0;
  const found = searchIndex
    .map((entry) => [score(entry, wanted), entry])
    .filter(([points]) => points > 0)
    .sort((a, b) => b[0] - a[0])
    .slice(0, kMost);
  results.replaceChildren(...found.map(([, entry]) => resultFor(entry, wanted)));
  if (found.length === 0) {
    const none = document.createElement("li");
    none.className = "none";
    none.textContent = "Nothing found.";
    results.append(none);
  }
}

function choose(step) {
  const links = [...results.querySelectorAll("a")];
  const at = links.findIndex((link) => link.classList.contains("chosen"));
  links[at]?.classList.remove("chosen");
  const next = links[(at + step + links.length) % links.length];
  next?.classList.add("chosen");
  next?.scrollIntoView({ block: "nearest" });
}

field.addEventListener("focus", loadIndex);
field.addEventListener("input", showResults);
field.addEventListener("keydown", (event) => {
  if (event.key === "ArrowDown" || event.key === "ArrowUp") {
    event.preventDefault();
    choose(event.key === "ArrowDown" ? 1 : -1);
  } else if (event.key === "Enter") {
    (results.querySelector(".chosen") ?? results.querySelector("a"))?.click();
  } else if (event.key === "Escape") {
    results.hidden = true;
    field.blur();
  }
});
results.addEventListener("click", () => {
  results.hidden = true;
});
document.addEventListener("click", (event) => {
  if (!event.target.closest(".search")) {
    results.hidden = true;
  }
});
document.addEventListener("keydown", (event) => {
  if (event.key === "/" && document.activeElement !== field) {
    event.preventDefault();
    field.focus();
  }
});
