// SPDX-License-Identifier: Apache-2.0
// Rules files as bytes and as the text that the editor shows.

/** A file that was opened: {name, bytes, text, lineEnd, isText, handle}. */
async function read(file, handle = null) {
  const bytes = new Uint8Array(await file.arrayBuffer());
  return { name: file.name, handle, bytes, ...decode(bytes) };
}

export function decode(bytes) {
  let text, isText = true;
  try {
    text = new TextDecoder('utf-8', { fatal: true, ignoreBOM: true }).decode(bytes);
    isText = !text.includes('\0');
  } catch {
    isText = false;
    text = new TextDecoder('utf-8', { ignoreBOM: true }).decode(bytes);
  }
  const lineEnd = text.includes('\r\n') ? '\r\n' : '\n';
  return { text, lineEnd, isText };
}

export function encode(text) {
  return new TextEncoder().encode(text);
}

/** Lets the user choose a file; null where they don't. */
export async function openFile(input) {
  if (window.showOpenFilePicker) {
    try {
      const [handle] = await showOpenFilePicker();
      return read(await handle.getFile(), handle);
    } catch (error) {
      if (error.name === 'AbortError') return null;
      throw error;
    }
  }
  return new Promise((resolve, reject) => {
    input.value = '';
    input.onchange = () => read(input.files[0]).then(resolve, reject);
    input.oncancel = () => resolve(null);
    input.click();
  });
}

export async function droppedFile(transfer) {
  const [item] = transfer.files;
  return item ? read(item) : null;
}

/** Writes to the file that `handle` stands for, or else to one that the user names; its handle. */
async function saveByHandle(handle, name, bytes) {
  const target = handle ?? await showSaveFilePicker({ suggestedName: name });
  const stream = await target.createWritable();
  await stream.write(bytes);
  await stream.close();
  return target;
}

/** False where the user has not saved it after all. */
export async function saveFile(file, bytes) {
  if (window.showSaveFilePicker) {
    try {
      file.handle = await saveByHandle(file.handle, file.name, bytes);
      file.name = file.handle.name;
      return true;
    } catch (error) {
      if (error.name === 'AbortError') return false;
      throw error;
    }
  }
  const link = document.createElement('a');
  link.href = URL.createObjectURL(new Blob([bytes], { type: 'application/xml' }));
  link.download = file.name;
  link.click();
  setTimeout(() => URL.revokeObjectURL(link.href));
  return true;
}
