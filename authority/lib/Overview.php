<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/**
 * Writes the page that shows what the authority holds: how much of each, and the
 * newest of each. Its script asks for the page again and again and takes over the
 * parts marked as live, so that all markup is written here.
 */
final class Overview
{
    /** How many rows a table shows; a pool may have any number of agents. */
    private const SHOWN = 12;

    /**
     * Section => its title, what counts its rows, its columns (heading => expression) and where they come from.
     * Neither hashes of passwords nor the rules of data selections nor the fields of requests are among them.
     */
    private const SECTIONS = [
        'requests' => [
            'Requests',
            // All that ever came; the log itself keeps the last ones.
            'SELECT coalesce(max(id), 0) FROM requests',
            ['Number' => 'id', 'Time' => 'received_at', 'Page' => 'page', 'Action' => 'action', 'Login' => 'login',
                'From' => 'client', 'Outcome' => "iif(outcome = 'done', outcome, 'refused: ' || outcome)"],
            'requests ORDER BY id DESC',
        ],
        'agents' => [
            'Agents',
            'SELECT count(*) FROM agents',
            ['Id' => 'id', 'Host' => 'host_name', 'Kind' => "iif(is_server_agent, 'server agent', 'agent')",
                'Version' => 'agent_version', 'Registered' => 'registered_at'],
            'agents ORDER BY id DESC',
        ],
        'dataselections' => [
            'Data selections',
            'SELECT count(*) FROM dataselections',
            ['Id' => 'id', 'Agent' => 'agent_id', 'Name' => 'name', 'Type' => 'type_id',
                'Rules' => "length(rules) || ' characters'", 'Created' => 'created_at'],
            'dataselections ORDER BY id DESC',
        ],
        'accounts' => [
            'Accounts',
            'SELECT count(*) FROM accounts',
            ['Login' => 'login', 'Role' => "iif(agent_id IS NULL, 'administrator', 'agent')", 'Agent' => 'agent_id'],
            'accounts WHERE agent_id IS NULL OR agent_id > (SELECT max(agent_id) FROM accounts) - ' . self::SHOWN . '
             ORDER BY agent_id IS NOT NULL, agent_id DESC',
        ],
        'pools' => ['Pools', 'SELECT count(*) FROM pools', ['Id' => 'id', 'Name' => 'name'], 'pools ORDER BY id'],
    ];

    /** The whole page. */
    public static function page(Store $store): string
    {
        $counts = $sections = '';
        $told = [];
        foreach (self::SECTIONS as $id => [$title, $count, $columns, $source]) {
            $number = (int) current($store->rows($count)[0]);
            $told[] = "$title: $number";
            $counts .= "<li><a href=\"#$id\"><b id=\"$id-count\" data-live>$number</b> $title</a></li>\n";
            $sections .= self::section($id, $title, $number, $columns, self::newest($store, $columns, $source));
        }
        return self::frame(self::text(implode(', ', $told)), $counts, $sections);
    }

    /** The one style that the page holds. */
    public static function style(): string
    {
        return file_get_contents(__DIR__ . '/watch.css');
    }

    /** The one script that the page holds. */
    public static function script(): string
    {
        return file_get_contents(__DIR__ . '/watch.js');
    }

    private static function frame(string $status, string $counts, string $sections): string
    {
        [$style, $script] = [self::style(), self::script()];
        $host = self::text((string) gethostname());
        return <<<HTML
            <!DOCTYPE html>
            <html lang="en">
            <head>
            <meta charset="utf-8">
            <meta name="viewport" content="width=device-width, initial-scale=1">
            <title>Storage pool authority</title>
            <style>$style</style>
            <noscript><meta http-equiv="refresh" content="5"></noscript>
            </head>
            <body>
            <header>
            <h1>Storage pool authority</h1>
            <p>$host, times in UTC</p>
            <button type="button" id="pause" aria-pressed="false" hidden>Pause</button>
            </header>
            <nav aria-label="Sections">
            <ul>
            $counts</ul>
            </nav>
            <p id="status" role="status" aria-live="polite" data-live>$status</p>
            <main>
            $sections</main>
            <script>$script</script>
            </body>
            </html>

            HTML;
    }

    /**
     * @param array<string, string> $columns
     * @return list<array<string, mixed>> heading => value
     */
    private static function newest(Store $store, array $columns, string $source): array
    {
        foreach ($columns as $heading => $expression) {
            $columns[$heading] = "$expression AS '$heading'";
        }
        return $store->rows('SELECT ' . implode(', ', $columns) . " FROM $source LIMIT " . self::SHOWN);
    }

    private static function section(string $id, string $title, int $number, array $columns, array $rows): string
    {
        $headings = array_map(static fn (string $name): string => "<th scope=\"col\">$name</th>", array_keys($columns));
        $shown = match (true) {
            $number === 0 => 'None yet',
            count($rows) < $number => sprintf('The last %d of %d', count($rows), $number),
            default => "All $number",
        };
        return "<section id=\"$id\" aria-labelledby=\"$id-title\">\n<h2 id=\"$id-title\">$title</h2>\n<table>\n"
            . "<caption id=\"$id-caption\" data-live>$shown</caption>\n"
            . '<thead><tr>' . implode('', $headings) . "</tr></thead>\n"
            . "<tbody id=\"$id-rows\" data-live>\n" . implode('', array_map(self::row(...), $rows)) . "</tbody>\n"
            . "</table>\n</section>\n";
    }

    /** One row; its cells carry their heading for screens too narrow for a table. */
    private static function row(array $row): string
    {
        $cells = '';
        foreach ($row as $heading => $value) {
            $cells .= "<td data-heading=\"$heading\">" . self::text((string) $value) . '</td>';
        }
        return '<tr data-key="' . self::text((string) current($row)) . "\">$cells</tr>\n";
    }

    /** A text as it is to be seen, whatever marks it holds. */
    private static function text(string $value): string
    {
        return htmlspecialchars($value, ENT_QUOTES | ENT_SUBSTITUTE | ENT_HTML5, 'UTF-8');
    }
}
